import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import { after, afterEach, before, beforeEach } from 'node:test';
import { newPage, openBrowser } from './browser.mjs';
import { Feed } from './feed.mjs';

const PATIENCE_MS = 60_000;
export const MINUTE = 60_000;

let browser;
/** What the next page reads; a new one for each test. */
export let feed;
export const useFeed = (other) => (feed = other);
const opened = [];
before(async () => (browser = await openBrowser()));
after(() => browser?.close());
beforeEach(async () => (feed = await Feed.open()));
afterEach(async () => {
  for (const page of opened.splice(0)) await page.close();
  await feed?.close();
});

export async function openPage({ frozenClock = false, url = feed.url, ...options } = {}) {
  const page = await newPage(browser, options);
  opened.push(page);
  page.setDefaultTimeout(PATIENCE_MS);
  if (frozenClock) await page.clock.install({ time: Date.now() });
  await page.goto(url);
  // From here its time passes only where a test lets it.
  if (frozenClock) await page.clock.pauseAt(Date.now() + MINUTE);
  return page;
}

export const see = (page, selector, words) => page.locator(selector, { hasText: words }).first().waitFor();
export const gone = (page, selector) => page.locator(selector).waitFor({ state: 'detached' });
export const words = (page, selector) => page.locator(selector).allInnerTexts();
export const seeValue = (page, stream, metric, text) =>
  page
    .locator(`[data-stream="${stream}"] .row`, { has: page.locator(`[data-metric="${metric}"]`) })
    .locator('.value', { hasText: text })
    .waitFor();

/** How many pixels a chart's line or bars have, in all and in its upper half. */
export function ink(page, stream, metric) {
  return page.evaluate(([stream, metric]) => {
    const canvas = document.querySelector(`[data-stream="${stream}"] [data-metric="${metric}"]`);
    if (!canvas || canvas.width === 0) return { all: 0, high: 0 };
    const { data, width, height } = canvas.getContext('2d').getImageData(0, 0, canvas.width, canvas.height);
    const solid = (part) => part.filter((value, at) => at % 4 === 3 && value > 200).length;
    return { all: solid(data), high: solid(data.subarray(0, width * 4 * Math.floor(height / 2))) };
  }, [stream, metric]);
}

export async function until(look) {
  const deadline = Date.now() + PATIENCE_MS;
  for (;;) {
    const found = await look();
    if (found) return found;
    assert.ok(Date.now() < deadline, `waited in vain for ${look}`);
  }
}

export const PERSON = { id: 'p', name: 'Grace', local: false, mode: 'RECV_ONLY', leftAt: null };
export const STREAM = { id: 'v', kind: 'video', endedAt: null, state: 'ACTIVE', codec: 'video/VP8' };
export const SPAN = { parentId: null, durationMs: 1, success: true, message: '', attributes: {}, category: '' };
export const SAMPLE = [1234, 24, 640, 360, null, 0, 5, null, 0];

export function sendStream(person = PERSON, stream = STREAM) {
  const now = feed.now();
  feed.send('meeting', { id: 'abc', localParticipantId: 'me', state: 'CONNECTED' });
  feed.send('participant', { ...person, joinedAt: now });
  feed.send('stream', { participantId: person.id, stream: { ...stream, startedAt: now } });
}

export async function saved(page) {
  const [download] = await Promise.all([page.waitForEvent('download'), page.locator('#save').click()]);
  return { name: download.suggestedFilename(), text: fs.readFileSync(await download.path(), 'utf8') };
}
export const openFile = (page, name, text) =>
  page.setInputFiles('#file', { name, mimeType: 'application/json', buffer: Buffer.from(text) });
