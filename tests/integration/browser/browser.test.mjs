import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import { after, before, test } from 'node:test';
import { setTimeout as delay } from 'node:timers/promises';
import { openService, temporaryFolder, until } from '../../../server/test/support.mjs';
import { readPng, Run, talk } from '../meet/support.mjs';
import { openBrowser } from './browser.mjs';
import { readMark } from './mark.mjs';

const PATIENCE_MS = 90000;
const LOOK_AGAIN_MS = 200;
const FRAMES_PER_SECOND = 15;
const PAGE_HERTZ = 523;
const MEET_HERTZ = 660;
const NEAR_HERTZ = 10;

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

/** Until `check` throws nothing more. */
async function eventually(check) {
  const deadline = Date.now() + PATIENCE_MS;
  for (;;) {
    try {
      return await check();
    } catch (error) {
      if (Date.now() > deadline) throw error;
      await delay(LOOK_AGAIN_MS);
    }
  }
}

async function openPage(roomId, camera) {
  const page = await browser.page();
  const options = { service: service.ready.service, roomId, peerId: 'page' };
  await page.evaluate((given) => globalThis.joinMeeting(given), {
    ...options,
    token: service.token(),
  });
  // The camera first: its start bitrate counts only for a transport that is still unused.
  await page.evaluate((given) => globalThis.participant.publishCamera(given), camera);
  await page.evaluate((hertz) => globalThis.participant.publishTone(hertz), PAGE_HERTZ);
  return page;
}

function startMeet(t, roomId, folder) {
  const options = {
    service: service.ready.service,
    meeting: roomId,
    name: 'Meet',
    participant: 'meet',
    'tone-hz': MEET_HERTZ,
    snapshot: folder,
    expect: 1,
    // Should this process be killed, it doesn't stay behind.
    duration: '5m',
  };
  const args = Object.entries(options).flatMap(([name, value]) => [`--${name}`, `${value}`]);
  const environment = { SSL_CERT_FILE: service.ready.ca, KESTROVA_TOKEN: service.token() };
  const run = new Run([...args, '--json'], environment);
  t.after(() => run.stop('SIGKILL'));
  return run;
}

const isNear = (hertz, wanted) => Math.abs(hertz - wanted) < NEAR_HERTZ;

/** Until the page has Meet's picture moving in full size, and its tone. */
async function pageReceives(page, { codec }) {
  const wanted = { codec, fps: FRAMES_PER_SECOND, hertz: MEET_HERTZ, near: NEAR_HERTZ };
  const good = ({ codec, fps, hertz, near }) => {
    const { video, audio } = globalThis.participant.seen.meet ?? {};
    const seen = video?.codec === codec && video.fps >= fps && video.height >= 360;
    return seen && video.different >= 30 && Math.abs(audio?.hertz - hertz) < near;
  };
  try {
    await page.waitForFunction(good, wanted, { polling: 200, timeout: PATIENCE_MS });
  } catch {
    const seen = await page.evaluate(() => globalThis.participant.seen);
    assert.fail(`the page doesn't see and hear Meet: ${JSON.stringify(seen)}`);
  }
  return page.evaluate(() => globalThis.participant.seen.meet.video);
}

const samples = (run) => run.events.filter(({ event }) => event === 'sample');
const ofPage = ({ people }) => people.find(({ id }) => id === 'page');

/** Until Meet has the page's picture moving in full size, and its tone. */
function meetReceives(run, { width, height }) {
  const good = (sample) => {
    const page = ofPage(sample);
    const sized = page?.width === width && page.height === height;
    return sized && page.fps >= FRAMES_PER_SECOND && isNear(page.hertz, PAGE_HERTZ);
  };
  return within(run.event('sample', good), () => samples(run).slice(-3).map(ofPage));
}

/** Lets no more pictures come: one that is under way while a stream is closed may turn black. */
async function holdPicture(roomId, run) {
  await service.control('pauseBySubManager', { roomId, peerId: 'meet', kind: 'video' });
  const { ms: begun } = samples(run).at(-1);
  const still = ({ ms, people }) => ms > begun && ofPage({ people })?.fps === 0;
  await within(run.event('sample', still), () => ofPage(samples(run).at(-1)));
}

async function videos(roomId) {
  const [{ peers }] = (await service.control('rooms', { roomId })).rooms;
  const byId = Object.fromEntries(peers.map((peer) => [peer.id, peer]));
  const video = (list) => list.find(({ kind }) => kind === 'video');
  return {
    published: { page: video(byId.page.producers), meet: video(byId.meet.producers) },
    received: { page: video(byId.page.consumers), meet: video(byId.meet.consumers) },
  };
}

async function meetEachOther(t, roomId, { camera, check }) {
  const folder = temporaryFolder();
  t.after(() => fs.rmSync(folder, { recursive: true }));
  const page = await openPage(roomId, camera);
  const run = startMeet(t, roomId, folder);
  const [picture] = await Promise.all([
    pageReceives(page, { codec: camera.mimeType }),
    meetReceives(run, camera),
  ]);
  // Meet's pattern is bright on the left and dark blue on the right.
  assert.ok(Math.min(...picture.left) > 150, `${picture.left}`);
  assert.ok(picture.right[2] > 120 && picture.right[0] < 60, `${picture.right}`);
  await eventually(async () => check(await videos(roomId)));

  await holdPicture(roomId, run);
  assert.equal(await within(run.stop('SIGTERM'), () => run.events.at(-1)), 143);
  const [remote] = run.summary.remotes;
  assert.ok(remote.flowed && isNear(remote.hertz, PAGE_HERTZ), JSON.stringify(remote));
  const { width, height, pixels } = readPng(remote.snapshot);
  assert.deepEqual([width, height], [camera.width, camera.height]);
  const number = readMark(width, (x, y) => pixels[(y * width + x) * 3 + 1]);
  assert.ok(number > FRAMES_PER_SECOND, `frame ${number} is the last that was seen`);

  await page.waitForFunction(() => globalThis.participant.consumers.size === 0);
  assert.deepEqual(await page.evaluate(() => globalThis.participant.failures), []);
  assert.deepEqual(page.trouble, []);
  await page.evaluate(() => globalThis.participant.leave());
  await until(async () => (await service.control('rooms', { roomId })).rooms.length === 0);
  await page.close();
}

test('a page and kestrova-meet --chat read each other', async (t) => {
  const page = await browser.page();
  const [roomId, token] = ['words', service.token()];
  const options = { service: service.ready.service, roomId, peerId: 'page', token };
  await page.evaluate((given) => globalThis.joinMeeting(given), options);
  const say = (text, payload) =>
    page.evaluate((given) => globalThis.participant.topics.publish('CHAT', ...given), [text, payload]);
  await page.evaluate(() => globalThis.participant.topics.subscribe('CHAT'));
  await say('before', {});

  const run = talk(service, roomId, 'Meet', '--participant', 'meet');
  t.after(() => run.stop('SIGKILL'));
  const heard = (event, text) => within(run.event(event, (entry) => entry.message === text), () => run.events);
  assert.equal((await heard('history', 'before')).senderId, 'page');
  await within(run.event('historyEnd'), () => run.events);
  await say('Grüße \u{1F600}', { deep: [1, { er: 'ü' }] });
  const { senderName, payload } = await heard('message', 'Grüße \u{1F600}');
  assert.deepEqual([senderName, payload], ['page', { deep: [1, { er: 'ü' }] }]);
  run.say('zurück');
  await page.waitForFunction(
    () => globalThis.participant.topics.heard.some((line) => line.startsWith('meet: zurück {')),
    undefined,
    { timeout: PATIENCE_MS },
  );
  assert.equal(await within(run.stop('SIGTERM'), () => run.events), 143);
  assert.deepEqual(page.trouble, []);
  await page.evaluate(() => globalThis.participant.leave());
  await page.close();
});

test('a page and kestrova-meet see and hear each other in VP8 layers', async (t) => {
  const camera = { mimeType: 'video/VP8', simulcast: true, width: 960, height: 540 };
  await meetEachOther(t, 'layers', {
    camera: { ...camera, framesPerSecond: 20 },
    check({ published, received }) {
      for (const { type, codec, stats } of Object.values(published)) {
        assert.deepEqual([type, codec], ['simulcast', 'video/VP8']);
        assert.equal(stats.filter(({ packetCount }) => packetCount > 0).length, 3);
      }
      for (const { type, currentLayers } of Object.values(received)) {
        assert.deepEqual([type, currentLayers?.spatialLayer], ['simulcast', 2]);
      }
    },
  });
});

test('a page and a kestrova-meet that knows only H264 see and hear each other', async (t) => {
  const codecs = ['video/H264'];
  await service.control('offerCodecs', { roomId: 'h264', peerId: 'meet', codecs });
  const camera = { mimeType: 'video/H264', simulcast: false, width: 640, height: 360 };
  await meetEachOther(t, 'h264', {
    camera: { ...camera, framesPerSecond: 20 },
    check({ published }) {
      for (const { codec } of Object.values(published)) assert.equal(codec, 'video/H264');
    },
  });
});
