import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { after, before, test } from 'node:test';
import { openService, temporaryFolder, until } from '../../../server/test/support.mjs';
import { join } from '../meet/support.mjs';
import { openBrowser } from './browser.mjs';

// kestrova-meet and a page that encrypts with an implementation of its own.

const PATIENCE_MS = 90000;
const PAGE_HERTZ = 523;
const MEET_HERTZ = 660;
const NEAR_HERTZ = 10;
const KEY = 'correct horse battery staple';
const THIRD_KEY = 'a third key';
const LAYERS = { mimeType: 'video/VP8', simulcast: true, width: 960, height: 540 };
const SINGLE = { mimeType: 'video/H264', simulcast: false, width: 640, height: 360 };

let service;
let browser;
before(async () => {
  service = await openService();
  browser = await openBrowser(service);
});
after(async () => {
  await browser?.close();
  await service?.close();
});

/** Fails when `promise` takes too long, with what there is instead. */
function within(promise, instead) {
  let timer;
  const late = new Promise((_, reject) => {
    const fail = () => reject(new Error(`waited in vain; there is ${JSON.stringify(instead())}`));
    timer = setTimeout(fail, PATIENCE_MS);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

/** A page in the meeting: with that key, with none yet where it is "", or plain without one. */
async function openPage(roomId, camera, key) {
  const page = await browser.page();
  const given = { service: service.ready.service, roomId, peerId: 'page', token: service.token() };
  await page.evaluate((options) => globalThis.joinMeeting(options), {
    ...given,
    encrypted: key !== undefined,
  });
  page.order = (order, argument) =>
    page.evaluate((asked) => globalThis.participant.encryption.do(...asked), [order, argument]);
  if (key) await page.order('setKey', key);
  await page.evaluate((options) => globalThis.participant.publishCamera(options), {
    ...camera,
    framesPerSecond: 20,
  });
  await page.evaluate((hertz) => globalThis.participant.publishTone(hertz), PAGE_HERTZ);
  return page;
}

/** kestrova-meet with a key in a file, which it reads again when it is told to. */
function startMeet(t, roomId, key) {
  const folder = temporaryFolder();
  const keyFile = path.join(folder, 'key');
  fs.writeFileSync(keyFile, `  ${key}\n`);
  const options = ['--participant', 'meet', '--tone-hz', `${MEET_HERTZ}`, '--key-file', keyFile];
  const run = join(service, roomId, 'Meet', ...options, '--duration', '5m', '--chat', '--verbose');
  t.after(async () => {
    await run.stop('SIGKILL');
    fs.rmSync(folder, { recursive: true });
  });
  return Object.assign(run, { keyFile });
}

const isNear = (hertz, wanted) => Math.abs(hertz - wanted) < NEAR_HERTZ;
const samples = (run) => run.events.filter(({ event }) => event === 'sample');
const ofPage = ({ people }) => people.find(({ id }) => id === 'page');

/** The first event from here on of which `matches` holds. */
function next(run, name, matches) {
  const begun = run.events.length;
  const fresh = (entry) => run.events.indexOf(entry, begun) >= begun && matches(entry);
  return within(run.event(name, fresh), () => run.events.slice(-12));
}

/** From here on: pictures of the page that move, and its tone. */
const meetReceives = (run) =>
  next(run, 'sample', (sample) => ofPage(sample)?.fps >= 5 && isNear(ofPage(sample).hertz, PAGE_HERTZ));

/** From here on, for three samples on end: no picture and no sound of the page. */
async function meetReceivesNothing(run) {
  for (let left = 3; left > 0; left -= 1) {
    const { fps, levelDb } = ofPage(await next(run, 'sample', ofPage));
    if (fps > 0 || levelDb > -60) left = 4;
  }
}

/** Until Meet has told these states of these streams, from here on. */
const told = (run, id, state) =>
  Promise.all(
    ['audio', 'video'].map((kind) =>
      next(run, 'e2ee', (entry) => entry.id === id && entry.kind === kind && entry.state === state),
    ),
  );

/** Until the page has Meet's picture moving, and its tone, from here on. */
async function pageReceives(page) {
  const before = await page.evaluate(() => globalThis.participant.seen.meet?.video?.different ?? 0);
  const good = ({ before, hertz, near }) => {
    const { video, audio } = globalThis.participant.seen.meet ?? {};
    return video?.different >= before + 20 && Math.abs(audio?.hertz - hertz) < near;
  };
  const wanted = { before, hertz: MEET_HERTZ, near: NEAR_HERTZ };
  try {
    await page.waitForFunction(good, wanted, { polling: 200, timeout: PATIENCE_MS });
  } catch {
    const seen = await page.evaluate(() => globalThis.participant.seen);
    assert.fail(`the page doesn't see and hear Meet: ${JSON.stringify(seen)}`);
  }
}

/** Until the page has refused frames of both kinds, with none opened in between. */
async function pageRefuses(page, codec) {
  await page.order('forget');
  await until(async () => {
    const counts = await page.order('counts');
    return counts[`opus receive failed`] > 20 && counts[`${codec} receive failed`] > 5;
  });
  const counts = await page.order('counts');
  return [counts['opus receive good'], counts[`${codec} receive good`]];
}

async function part(page, run) {
  assert.equal(await within(run.stop('SIGTERM'), () => run.events.at(-1)), 143, run.stderr);
  assert.match(run.stderr, /Joining the meeting/);
  assert.ok(![KEY, THIRD_KEY].some((key) => (run.stderr + run.stdout).includes(key)), 'a key is told');
  assert.deepEqual(await page.evaluate(() => globalThis.participant.failures), []);
  assert.deepEqual(page.trouble, []);
  await page.evaluate(() => globalThis.participant.leave());
  await page.close();
}

/** What the service knows of the video streams. */
async function videos(roomId) {
  const [{ peers }] = (await service.control('rooms', { roomId })).rooms;
  const video = (list) => list.find(({ kind }) => kind === 'video');
  return peers.map(({ producers, consumers }) => [video(producers), video(consumers)]);
}

test('a key that is none is refused, and so is a file without one', async () => {
  const folder = temporaryFolder();
  const empty = path.join(folder, 'empty');
  fs.writeFileSync(empty, ' \n');
  for (const [options, told] of [
    [['--key-file', path.join(folder, 'none')], /no key can be read from .*none/],
    [['--key-file', empty], /the key is empty/],
    [['--key', '   '], /the key is empty/],
  ]) {
    const run = join(service, 'refused', 'Meet', ...options);
    assert.equal(await run.ended, 2);
    assert.match(run.stderr, told);
  }
  fs.rmSync(folder, { recursive: true });
});

for (const [name, camera, layer] of [['vp8', LAYERS, 2], ['h264', SINGLE, undefined]]) {
  test(`both encrypt ${name} with one key, and the service still chooses layers`, async (t) => {
    const roomId = `same-${name}`;
    const codecs = [camera.mimeType];
    if (name === 'h264') await service.control('offerCodecs', { roomId, peerId: 'meet', codecs });
    const page = await openPage(roomId, camera, KEY);
    const run = startMeet(t, roomId, KEY);
    const states = [told(run, 'meet', 'EncryptionSuccess'), told(run, 'page', 'DecryptionSuccess')];
    await Promise.all([pageReceives(page), meetReceives(run), ...states]);
    await until(async () =>
      (await videos(roomId)).every(([sent, received]) => {
        const isChosen = layer === undefined || received.currentLayers?.spatialLayer === layer;
        return sent.codec === camera.mimeType && isChosen;
      }));
    assert.deepEqual(run.all('e2ee', 'state').filter((state) => state.endsWith('Failed')), []);
    const counts = await page.order('counts');
    assert.ok(counts[`${name} receive good`] > 20 && !counts[`${name} receive failed`]);
    await part(page, run);
  });
}

test('another key opens nothing until it is the same, also after a ratchet', async (t) => {
  const roomId = 'keys';
  const page = await openPage(roomId, LAYERS, '');
  const run = startMeet(t, roomId, KEY);
  await told(run, 'meet', 'EncryptionSuccess');
  assert.deepEqual(await pageRefuses(page, 'vp8'), [undefined, undefined], 'without a key');

  const failed = told(run, 'page', 'DecryptionFailed');
  await page.order('setKey', 'another key');
  await failed;
  await meetReceivesNothing(run);
  assert.deepEqual(await pageRefuses(page, 'vp8'), [undefined, undefined], 'with another one');

  const opened = told(run, 'page', 'DecryptionSuccess');
  await page.order('setKey', ` ${KEY} `);
  await Promise.all([opened, pageReceives(page), meetReceives(run)]);

  const parted = told(run, 'page', 'DecryptionFailed');
  await page.order('ratchet');
  await parted;
  await meetReceivesNothing(run);
  const together = told(run, 'page', 'DecryptionSuccess');
  run.say('/ratchet');
  await Promise.all([together, pageReceives(page), meetReceives(run)]);

  fs.writeFileSync(run.keyFile, `${THIRD_KEY}\n`);
  const changed = told(run, 'page', 'DecryptionFailed');
  run.say('/rekey');
  await changed;
  await page.order('setKey', THIRD_KEY);
  await Promise.all([pageReceives(page), meetReceives(run)]);
  await part(page, run);
});

test('frames that were touched are neither seen nor heard', async (t) => {
  const roomId = 'touched';
  const page = await openPage(roomId, SINGLE, KEY);
  const run = startMeet(t, roomId, KEY);
  await meetReceives(run);
  const states = [told(run, 'page', 'DecryptionFailed'), told(run, 'page', 'DecryptionSuccess')];
  await page.order('tamper', 40);
  await Promise.all(states);
  await page.order('tamper', 1);
  await meetReceivesNothing(run);
  await page.order('tamper', 0);
  await Promise.all([pageReceives(page), meetReceives(run)]);
  await part(page, run);
});

test('a plain participant among encrypted ones is neither seen nor heard', async (t) => {
  const roomId = 'plain';
  const run = startMeet(t, roomId, KEY);
  const failed = told(run, 'page', 'DecryptionFailed');
  const page = await openPage(roomId, LAYERS, undefined);
  await failed;
  await meetReceivesNothing(run);
  assert.ok(!run.all('e2ee', 'state').includes('DecryptionSuccess'));
  assert.ok(!run.events.some(({ event }) => event === 'firstPicture' || event === 'firstSound'));
  await part(page, run);
});
