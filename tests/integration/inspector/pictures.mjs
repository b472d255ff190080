// Makes the pictures of the inspector that the documents show: node pictures.mjs
import * as path from 'node:path';
import { newPage, openBrowser } from './browser.mjs';
import { Feed } from './feed.mjs';
import { MEETING_MS } from './meeting.mjs';

const FOLDER = path.join(import.meta.dirname, '../../../docs/images');
// The same moment in every picture, so that they change only with the page.
const NOW = Date.UTC(2025, 5, 12, 14, 30, 40);
const FROZEN_AT = 60_500;

async function openPage(browser, feed, options) {
  const page = await newPage(browser, { timezoneId: 'UTC', ...options });
  await page.clock.setFixedTime(NOW);
  await page.goto(feed.url);
  await page.locator('.span').first().waitFor({ state: 'attached' });
  return page;
}

/** Until every chart that can be seen has been drawn. */
const drawn = (page) =>
  page.waitForFunction(() =>
    [...document.querySelectorAll('.chart:not(.unknown) canvas')]
      .filter((canvas) => canvas.checkVisibility() && canvas.getBoundingClientRect().top < innerHeight)
      .every(({ width }) => width === document.getElementById('axis').clientWidth));

async function lookAt(page, moment) {
  const { x, y, width } = await page.locator('#axis').boundingBox();
  await page.mouse.move(x + width * (1 - (MEETING_MS - moment) / 120_000), y + 30);
  await page.locator('#cursor').waitFor();
}

async function wide(browser, feed) {
  const page = await openPage(browser, feed, { width: 1280, height: 960, colorScheme: 'light' });
  await page.locator('[data-stream="ada-a"] button').click();
  await page.locator('.span', { hasText: 'Setting quality of Grace' }).locator('.words').click();
  await lookAt(page, FROZEN_AT);
  await drawn(page);
  await page.screenshot({ path: path.join(FOLDER, 'inspector.png') });
}

async function narrow(browser, feed) {
  const page = await openPage(browser, feed, { width: 400, height: 860, colorScheme: 'dark' });
  await lookAt(page, FROZEN_AT);
  await drawn(page);
  await page.screenshot({ path: path.join(FOLDER, 'inspector-narrow.png') });
}

const feed = await Feed.open({ now: () => NOW });
const browser = await openBrowser();
feed.sendMeeting(NOW - MEETING_MS);
await wide(browser, feed);
await narrow(browser, feed);
await browser.close();
await feed.close();
