import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import * as os from 'node:os';
import * as path from 'node:path';
import { test } from 'node:test';
import { pathToFileURL } from 'node:url';
import { Feed, PAGE } from './feed.mjs';
import {
  MINUTE, PERSON, SAMPLE, SPAN, STREAM, feed, gone, ink, openFile, openPage, saved, see, seeValue,
  sendStream, until, useFeed,
} from './pages.mjs';

const PAGE_URL = pathToFileURL(PAGE).href;
const withoutNow = ({ now, ...rest }) => rest;

test('a saved file is what was fed, and shows it again beside a live meeting', async () => {
  feed.sendMeeting(feed.now() - MINUTE);
  const first = await openPage();
  await see(first, '#meeting', 'Planning');
  const file = await saved(first);
  assert.match(file.name, /^kestrova-kqx3-m8vt-2pca-\d{8}T\d{6}Z[.]json$/);
  const { format, version, ...fed } = withoutNow(feed.snapshot());
  assert.deepEqual(withoutNow(JSON.parse(file.text)), { format, version, ...fed });

  const other = await Feed.open();
  const before = feed;
  useFeed(other);
  try {
    const page = await openPage({ height: 2600 });
    sendStream();
    await see(page, '#meeting', 'abc');
    await openFile(page, file.name, file.text);
    await see(page, '#meeting', 'Planning');
    await see(page, '#link', 'File of ');
    await until(async () => (await ink(page, 'grace-v', 'bitrate')).all > 0);
    await see(page, '.span', 'Setting quality of Grace');
    // What is live goes on behind it, and leaves it alone.
    feed.send('meeting', { id: 'abc', state: 'FAILED' });
    feed.send('snapshot', feed.snapshot());
    feed.send('samples', { t: feed.now(), streams: { v: SAMPLE } });
    await page.waitForFunction(() => live.recording.streams.get('v').samples.length === 1);
    await see(page, '#meeting', 'Planning');
    assert.deepEqual(JSON.parse((await saved(page)).text), JSON.parse(file.text));
    await page.locator('#live').click();
    await see(page, '#state', 'FAILED');
    await seeValue(page, 'v', 'bitrate', '1\u202f234 kbit/s');
    await gone(page, '[data-stream="grace-v"]');

    const dropped = await page.evaluateHandle((text) => {
      const transfer = new DataTransfer();
      transfer.items.add(new File([text], 'dropped.json'));
      return transfer;
    }, file.text);
    await page.dispatchEvent('body', 'drop', { dataTransfer: dropped });
    await see(page, '#meeting', 'Planning');
    assert.deepEqual([first.trouble, page.trouble], [[], []]);
  } finally {
    await before.close();
  }
});

test('a damaged or foreign file is told, and changes nothing', async () => {
  feed.sendMeeting(feed.now() - MINUTE);
  const page = await openPage();
  await see(page, '#meeting', 'Planning');
  const whole = feed.snapshot();
  const files = {
    'cut off': [JSON.stringify(whole).slice(0, -9), 'it is not JSON, or only a part of it'],
    empty: ['', 'it is not JSON'],
    foreign: ['{"version":1}', 'it is no recording of an inspector'],
    list: ['[]', 'it is no recording of an inspector'],
    newer: [JSON.stringify({ ...whole, version: 2 }), 'it has version 2, this page reads version 1'],
    timeless: [JSON.stringify({ ...whole, now: 1e300 }), 'it has no time'],
    broken: [JSON.stringify({ ...whole, participants: {} }), '“participants” is not a list'],
    hole: [JSON.stringify({ ...whole, spans: [SPAN, null] }), `entry 1 of “spans” can't be read`],
    timed: [JSON.stringify({ ...whole, spans: [{ ...SPAN, id: 's', durationMs: '9' }] }), 'entry 1 of “spans”'],
    trash: [JSON.stringify({ ...whole, events: [{}, 7] }), `entry 2 of “events” can't be read`],
    nameless: [JSON.stringify({ ...whole, participants: [{ id: 'x', streams: [{}] }] }), 'entry 1 of “str'],
  };
  for (const [name, [text, told]] of Object.entries(files)) {
    await openFile(page, `${name}.json`, text);
    await see(page, '#notice', `“${name}.json” can't be shown: ${told}`);
    await see(page, '#link', 'Live');
  }
  assert.equal(await page.locator('#meeting').innerText(), 'Planning');
  await page.locator('#notice button').click();
  await page.locator('#notice').waitFor({ state: 'hidden' });
  assert.deepEqual(page.trouble, []);
});

test('a page that was opened from a disk shows files, and offers nothing live', async () => {
  const page = await openPage({ url: PAGE_URL });
  await see(page, '#link', 'Open a recording');
  await see(page, '#meeting', 'No meeting');
  await page.locator('#recorded').waitFor({ state: 'hidden' });
  await page.keyboard.press('p');
  feed.sendMeeting(feed.now() - MINUTE);
  await openFile(page, 'some.json', JSON.stringify(feed.snapshot()));
  await see(page, '#meeting', 'Planning');
  await page.locator('#axis').press('ArrowLeft');
  await see(page, '#ago', '1.0 s to the end');
  await page.locator('#save').waitFor({ state: 'visible' });
  for (const control of ['#pause', '#live']) await page.locator(control).waitFor({ state: 'hidden' });
  assert.deepEqual(page.trouble, []);
});

test('a file of far too much is shown in part, and the page goes on', async () => {
  const page = await openPage();
  const now = feed.now();
  const many = (number, make) => Array.from({ length: number }, (_, at) => make(at));
  const stream = (id, more) => ({ ...STREAM, id, startedAt: now, samples: [], ...more });
  const person = (at) => ({ ...PERSON, id: `p${at}`, joinedAt: now + at, streams: [stream(`v${at}`)] });
  const one = { ...PERSON, id: 'one', name: 'N'.repeat(2e6), local: true, joinedAt: now };
  const deep = many(50, (at) => ({ ...SPAN, id: `d${at}`, parentId: `d${at - 1}`, start: now }));
  const attributes = Object.fromEntries(many(150_000, (at) => [`key ${at}`, at]));
  const file = {
    ...feed.snapshot(),
    participants: [
      { ...one, streams: many(150_000, (at) => stream(`own${at}`)) },
      ...many(3000, person),
      ...many(3000, (at) => ({ ...person(at), id: `left${at}`, leftAt: now - at, streams: [] })),
    ],
    marks: many(30_000, (at) => ({ t: now - at, kind: 'error', text: `error ${at}`, code: 1 })),
    spans: [...deep, { ...SPAN, id: 'wide', name: 'wide İ.*[', start: now, attributes }],
  };
  const folder = fs.mkdtempSync(path.join(os.tmpdir(), 'recording-'));
  try {
    const name = path.join(folder, 'huge.json');
    fs.writeFileSync(name, JSON.stringify(file));
    await page.setInputFiles('#file', name);
    await see(page, '#link', 'File of ');
  } finally {
    fs.rmSync(folder, { recursive: true });
  }
  await see(page, '#people > .empty', 'and 3301 more participants'); // of 3001, and 500 who left
  await see(page, '.person:first-child > .empty', 'and 149980 more streams');
  await see(page, '#errorCount', 'the last 200 of 2000');
  await page.locator('#filter').fill('i̇.*[');
  await page.locator('.span', { hasText: 'wide' }).locator('.words').click();
  await see(page, '.details', 'and 149800 more attributes');
  assert.ok((await page.evaluate(() => document.querySelectorAll('*').length)) < 30_000);
  await page.locator('#live').click();
  await see(page, '#link', 'Live');
  await see(page, '#people', 'Nobody is here');
  assert.deepEqual(page.trouble, []);
});

test('what is held stays, while the recording goes on', async () => {
  sendStream();
  feed.send('samples', { t: feed.now(), streams: { v: SAMPLE } });
  feed.send('event', { t: feed.now(), name: 'an event', attributes: { colour: 'blue' } });
  const page = await openPage();
  await seeValue(page, 'v', 'bitrate', '1\u202f234 kbit/s');
  const card = page.locator('[data-stream="v"] button');
  await card.click();
  await page.locator('.span .words').click();
  await see(page, '.details', 'blue');
  await page.keyboard.press('p');
  await see(page, '#link', 'Held at');
  const isLeftAsItWas = async () => {
    await page.evaluate(() => draw());
    assert.equal(await card.getAttribute('aria-expanded'), 'false');
    assert.match(await page.locator('.details').innerText(), /blue/);
  };
  await isLeftAsItWas();
  const held = await saved(page);
  feed.send('samples', { t: feed.now(), streams: { v: SAMPLE.with(0, 55) } });
  feed.send('span', { ...SPAN, id: 'new', name: 'new span', start: feed.now() });
  await page.waitForFunction(() => live.recording.spans.size === 1);
  assert.deepEqual(JSON.parse((await saved(page)).text), JSON.parse(held.text));
  await page.locator('#pause').click();
  await seeValue(page, 'v', 'bitrate', '55 kbit/s');
  await see(page, '.span', 'new span');
  await isLeftAsItWas();
  assert.deepEqual(page.trouble, []);
});

test('two minutes and 5000 spans and events are kept, a few rows are elements', async () => {
  const now = feed.now();
  const [left, gone] = [{ ...PERSON, id: 'left' }, { ...PERSON, id: 'gone' }];
  for (const [person, minutesAgo] of [[left, 1], [gone, 3]])
    feed.send('participant', { ...person, joinedAt: now - 9 * MINUTE, leftAt: now - minutesAgo * MINUTE });
  feed.send('participant', { ...PERSON, joinedAt: now - 9 * MINUTE });
  feed.send('stream', { participantId: 'p', stream: { ...STREAM, startedAt: now } });
  for (let t = now - 9 * MINUTE; t < now; t += 1000) feed.send('samples', { t, streams: { v: SAMPLE } });
  // Of the states before the two minutes the last still holds.
  const states = [[5, 'CONNECTING'], [4, 'CONNECTED'], [3, 'RECONNECTING'], [1, 'CONNECTED']];
  for (const [minutesAgo, text] of states)
    feed.send('mark', { t: now - minutesAgo * MINUTE, kind: 'state', text });
  feed.send('span', { ...SPAN, id: 'long', name: 'still running', start: now - 9 * MINUTE, durationMs: null });
  for (let at = 0; at < 6000; at += 1) {
    const [t, parentId] = [now - 6000 + at, 'long'];
    if (at % 3 === 0) feed.send('event', { t, name: `event ${at}`, parentId, attributes: {} });
    else feed.send('span', { ...SPAN, id: `s${at}`, parentId, name: `span ${at}`, start: t });
  }
  const page = await openPage();
  await see(page, '.span', 'span 5999');
  feed.send('span', { ...SPAN, id: 'last', parentId: 'long', name: 'the very last', start: feed.now() });
  await see(page, '.span', 'the very last'); // the end is followed
  assert.ok((await page.locator('.span').count()) < 100);
  await page.locator('.tree').evaluate((box) => (box.scrollTop = box.scrollHeight / 2));
  // The rows of the new place come a frame or two later: the same one is in view twice.
  const inView = await page.waitForFunction(() => {
    const [box, row] = [document.querySelector('.tree'), document.querySelectorAll('.span')[10]];
    const isInView = row && Math.abs(row.getBoundingClientRect().y - box.getBoundingClientRect().y) < box.clientHeight + 400;
    const before = window.rowBefore;
    window.rowBefore = isInView ? row.id : null;
    return isInView && row.id === before && row.id;
  });
  const key = await inView.jsonValue();
  const place = async () => (await page.locator(`#${key}`).boundingBox()).y;
  const y = await place();
  feed.send('event', { t: now - 6001, name: 'above', parentId: 'long', attributes: {} });
  await page.waitForFunction(() => live.recording.events.at(-1)?.name === 'above');
  await page.evaluate(() => draw());
  assert.equal(await place(), y); // what is read stays
  const { participants, spans, events, marks } = JSON.parse((await saved(page)).text);
  assert.ok(spans.length + events.length <= 5000 && spans.length + events.length > 4500);
  assert.equal(spans[0].id, 'long');
  assert.ok(!spans.some(({ id }) => id === 's1') && spans.some(({ id }) => id === 's5999'));
  assert.deepEqual(participants.map(({ id }) => id), ['left', 'p']);
  assert.deepEqual(marks.map(({ text }) => text), ['RECONNECTING', 'CONNECTED']);
  const [{ samples }] = participants[1].streams;
  assert.ok(samples.length > 60 && samples[0][0] >= now - 2 * MINUTE);
  assert.deepEqual(page.trouble, []);
});
