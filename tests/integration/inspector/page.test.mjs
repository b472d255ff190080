import * as assert from 'node:assert/strict';
import { test } from 'node:test';
import { Feed } from './feed.mjs';
import {
  MINUTE, PERSON, SAMPLE, SPAN, STREAM, feed, gone, ink, openFile, openPage, see, seeValue,
  sendStream, until, useFeed, words,
} from './pages.mjs';

const PICTURE_METRICS = ['bitrate', 'fps', 'rtt', 'loss', 'jitter', 'freezes'];
const grouped = (number) => String(number).replace(/\B(?=\d{3}$)/, '\u202f');

/** How strongly a chart's ground is shaded at `t`, 0 to 255. */
function shade(page, stream, metric, t) {
  return page.evaluate(([stream, metric, t]) => {
    const canvas = document.querySelector(`[data-stream="${stream}"] [data-metric="${metric}"]`);
    return canvas.getContext('2d').getImageData(Math.round(view.place(t) * canvas.width), 0, 1, 1).data[3];
  }, [stream, metric, t]);
}

test('what comes is shown as it comes, by the clock of who sends it', async () => {
  await feed.close();
  useFeed(await Feed.open({ now: () => Date.now() + 90 * MINUTE }));
  const page = await openPage();
  await see(page, '#link', 'Live');
  await see(page, '#people', 'Nobody is here');
  sendStream();
  for (const number of [1, 2, 3]) {
    const values = SAMPLE.with(0, 1234 * number).with(8, 7);
    feed.send('samples', { t: feed.now(), streams: { v: values, unknown: values } });
  }
  await seeValue(page, 'v', 'bitrate', '3\u202f702 kbit/s');
  await seeValue(page, 'v', 'fps', '24 fps');
  await seeValue(page, 'v', 'rtt', 'not known');
  await see(page, '.stream', '640×360');
  await until(async () => (await ink(page, 'v', 'bitrate')).all > 0);
  assert.equal((await ink(page, 'v', 'rtt')).all, 0);
  // Seven times it froze before, and not since.
  await seeValue(page, 'v', 'freezes', '7 so far');
  assert.equal((await ink(page, 'v', 'freezes')).high, 0);

  const mark = (kind, text, more) => feed.send('mark', { t: feed.now(), kind, text, ...more });
  mark('state', 'RECONNECTING');
  mark('quality', 'BANDWIDTH DETECTED');
  mark('stream', 'FREEZE_DETECTED', { participantId: 'p', streamId: 'v' });
  await see(page, '[data-lane=meeting] .value', 'RECONNECTING');
  await see(page, '[data-lane=limits] .value', 'BANDWIDTH');
  await see(page, '[data-lane=streams] .value', 'Grace video frozen');
  mark('quality', 'BANDWIDTH RESOLVED');
  mark('stream', 'FREEZE_RESOLVED', { participantId: 'p', streamId: 'v' });
  await see(page, '[data-lane=limits] .value', 'none');
  await see(page, '[data-lane=streams] .value', 'moving');
  const title = await page.locator('[data-lane=limits] .band').getAttribute('title');
  assert.match(title, /^BANDWIDTH: \d\d:\d\d:\d\d to \d/);

  feed.send('stream', { participantId: 'p', stream: { ...STREAM, endedAt: feed.now(), state: 'ENDED' } });
  await see(page, '.stream.gone .pill', 'ENDED');
  feed.send('participant', { ...PERSON, leftAt: feed.now() });
  await see(page, '.person.gone', 'left');
  assert.deepEqual(page.trouble, []);
  const asked = feed.requests.filter((url) => url !== '/favicon.ico');
  assert.deepEqual(asked, ['/key/', '/key/events']);
});

test('what lasts ends with whom it is about, and with the meeting', async () => {
  sendStream();
  const page = await openPage();
  const mark = (kind, text, more) => feed.send('mark', { t: feed.now(), kind, text, ...more });
  const pause = (text) => mark('stream', text, { participantId: 'p' });
  const streams = (words) => see(page, '[data-lane=streams] .value', words);
  pause('video paused: <b>hidden');
  await streams('Grace video paused');
  const [title] = await page.locator('[data-lane=streams] .band').evaluateAll((all) => all.map((one) => one.title));
  assert.match(title, /^Grace video paused: <b>hidden: \d/);
  const paused = await page.evaluate(() => bands.paused[0].from);
  await page.waitForFunction((t) => view.place(t) < 0.995, paused);
  await until(async () => (await shade(page, 'v', 'bitrate', paused + 100)) > 0);
  pause('video resumed: seen');
  await streams('moving');
  pause('video paused');
  await streams('Grace video paused');
  mark('stream', 'video ended', { participantId: 'p', streamId: 'v' });
  await streams('moving');
  for (let at = 0; at < 6; at += 1) {
    feed.send('participant', { ...PERSON, id: `p${at}`, name: `Person ${at}`, joinedAt: feed.now() });
    mark('stream', 'video paused', { participantId: `p${at}` });
  }
  await streams(/^Person 0 video paused\n.*\n.*\nand 3 more$/);
  // Also when it was long ago.
  const was = (kind, text, minutesAgo) => mark(kind, text, { t: feed.now() - minutesAgo * MINUTE });
  was('state', 'CONNECTED', 9);
  was('quality', 'BANDWIDTH DETECTED', 8);
  was('state', 'FAILED', 7);
  was('quality', 'CONGESTION DETECTED', 6);
  await see(page, '[data-lane=limits] .value', /^CONGESTION$/);

  mark('state', 'DISCONNECTED');
  await streams('moving');
  await see(page, '[data-lane=limits] .value', 'none');
  assert.deepEqual(page.trouble, []);
});

test('words beside a band cover no others', async () => {
  sendStream();
  const page = await openPage();
  const [now, video] = [feed.now(), { participantId: 'p', streamId: 'v' }];
  const marks = [[64, 'FREEZE_DETECTED', video], [50, 'FREEZE_RESOLVED', video]];
  for (const [seconds, text, whose] of [...marks, [9, 'audio paused', { participantId: 'p' }]])
    feed.send('mark', { t: now - seconds * 1000, kind: 'stream', text, ...whose });
  const labels = page.locator('[data-lane=streams] .band > span');
  await see(page, '[data-lane=streams] .band.after', 'Grace video frozen');
  await see(page, '[data-lane=streams] .band.before', 'Grace audio paused');
  const [a, b] = await labels.evaluateAll((all) => all.map((one) => one.getBoundingClientRect().toJSON()));
  assert.ok(a.right < b.left || a.bottom <= b.top, JSON.stringify([a, b]));
  assert.deepEqual(page.trouble, []);
});

test('what cannot be read is left out, and nothing else', async () => {
  const page = await openPage();
  await see(page, '#link', 'Live');
  const names = ['meeting', 'participant', 'stream', 'samples', 'mark', 'span', 'event', 'snapshot', 'news'];
  const mistyped = '{"id":{},"attributes":[],"streams":3,"t":"x"}';
  for (const data of ['{', 'null', '[]', '7', '{}', '"text"', mistyped]) {
    for (const name of names) feed.sendRaw(`event: ${name}\ndata: ${data}\n\n`);
  }
  const odd = { t: feed.now(), streams: { v: 'none', 5: [], ['__proto__']: [1] } };
  feed.sendRaw(`event: samples\ndata: ${JSON.stringify(odd)}\n\n`);
  feed.sendRaw('event: stream\ndata: {"participantId":"late","stream":{"id":"orphan","state":9}}\n\n');
  // Two that call each other parent are both shown.
  for (const [id, parentId] of [['a', 'b'], ['b', 'a'], ['self', 'self']])
    feed.send('span', { ...SPAN, id, parentId, name: `span ${id}`, start: feed.now() });
  sendStream();
  feed.send('samples', { t: feed.now(), streams: { v: SAMPLE.concat('more') }, more: 1 });
  feed.send('samples', { t: feed.now(), streams: { v: [77, 'fast'] } });
  await seeValue(page, 'v', 'bitrate', '77 kbit/s');
  await seeValue(page, 'v', 'fps', '–');
  await see(page, '.person', 'late');
  for (const id of ['a', 'b', 'self']) await see(page, '.span', `span ${id}`);
  assert.deepEqual(page.trouble, []);
});

test('the figures of each stream stand in its own charts, also of the moment looked at', async () => {
  const begin = feed.now() - MINUTE;
  feed.sendMeeting(begin);
  const page = await openPage({ height: 2600 });
  for (const [stream, unknown] of [['ada-v', 'freezes'], ['grace-v', 'rtt']]) {
    const known = PICTURE_METRICS.filter((metric) => metric !== unknown);
    for (const metric of known) await until(async () => (await ink(page, stream, metric)).all > 0);
    assert.equal((await ink(page, stream, unknown)).all, 0);
  }
  for (const metric of ['bitrate', 'loss', 'jitter', 'level'])
    await until(async () => (await ink(page, 'alan-a', metric)).all > 0);
  // Only Grace froze: of the others there is no more than the line at the bottom.
  await until(async () => (await ink(page, 'alan-v', 'freezes')).all > 0);
  assert.ok((await ink(page, 'grace-v', 'freezes')).high > 0);
  assert.equal((await ink(page, 'alan-v', 'freezes')).high, 0);

  assert.equal(await page.locator('[data-stream="ada-v"] .scale').first().innerText(), '2000\n0');
  // Grounds are shaded where a picture stood still, and on the own side where the quality was limited.
  const shaded = [['grace-v', 59_000], ['ada-v', 50_000]];
  const plain = [['grace-v', 50_000], ['ada-v', 40_000], ['alan-v', 59_000]];
  for (const [stream, t] of shaded) assert.notEqual(await shade(page, stream, 'loss', begin + t), 0);
  for (const [stream, t] of plain) assert.equal(await shade(page, stream, 'loss', begin + t), 0);

  await page.locator('#errors li', { hasText: '3015' }).getByRole('button').click();
  const { streams } = feed.all.participants.find(({ id }) => id === 'p-grace');
  const { samples } = streams.find(({ id }) => id === 'grace-v');
  const sampleAt = (t) => samples.findLast(([at]) => at <= t);
  const isAt = async (t) => {
    const [, bitrate, fps, , , , , , , freezes] = sampleAt(t);
    await seeValue(page, 'grace-v', 'bitrate', `${grouped(bitrate)} kbit/s`);
    await seeValue(page, 'grace-v', 'fps', `${fps} fps`);
    await seeValue(page, 'grace-v', 'freezes', `${freezes} so far`);
  };
  const errorAt = begin + 58_300;
  await isAt(errorAt);
  await see(page, '[data-lane=limits] .value', /^BANDWIDTH\nCONGESTION$/);
  await page.locator('#axis').focus();
  for (let steps = 0; steps < 4; steps += 1) await page.keyboard.press('ArrowLeft');
  await isAt(errorAt - 4000);
  await see(page, '[data-lane=streams] .value', 'moving');
  await page.keyboard.press('Shift+ArrowLeft');
  await see(page, '[data-lane=limits] .value', 'none');
  const spoken = await page.locator('#axis').getAttribute('aria-valuetext');
  assert.match(spoken, /^[\d:]{8}; meeting CONNECTED; limits none; streams moving$/);
  await page.keyboard.press('Escape');
  await page.locator('#flag').waitFor({ state: 'hidden' });

  const { x, y, width } = await page.locator('#axis').boundingBox();
  await page.mouse.move(x + width / 2, y + 60);
  await until(async () => Math.abs((await page.locator('#cursor').boundingBox())?.x - (x + width / 2)) < 2);
  await see(page, '#ago', '60 s ago');
  // Two within one frame: what counts is the last.
  await page.locator('#timeline').evaluate((pane, clientX) => {
    pane.dispatchEvent(new PointerEvent('pointermove', { clientX }));
    pane.dispatchEvent(new PointerEvent('pointerleave'));
  }, x + width / 4);
  await page.locator('#flag').waitFor({ state: 'hidden' });
  assert.deepEqual(page.trouble, []);
});

test('spans are a tree, which a text or their trouble narrows down', async () => {
  feed.sendMeeting(feed.now() - 116_000);
  const page = await openPage();
  const names = () => words(page, '.span .words');
  const shows = (expected) => until(async () => JSON.stringify(await names()) === JSON.stringify(expected));
  await see(page, '#spanCount', '19 spans · 7 events · 2 failed · 2 running');
  const places = { 'Restarting ICE': [1, 9, 11], 'Asking for new parameters': [2, 1, 2] };
  for (const [name, [level, position, size]] of Object.entries(places)) {
    const place = `[aria-level="${level}"][aria-posinset="${position}"][aria-setsize="${size}"]`;
    await see(page, `.span${place}`, name);
  }
  await see(page, '.span.running', 'Waiting for the service');

  await page.locator('#filter').fill('RELAY'); // an attribute of an event
  await shows(['Restarting ICE', 'Candidate pair changed']);
  await page.locator('#filter').fill('connection refused'); // a message
  await shows(['Reconnecting to the meeting', 'Opening the socket, attempt 1']);
  await page.locator('#filter').fill('');
  await page.locator('#only').click();
  await page.locator('#slow').selectOption('3000');
  const worst = [
    ...['Reconnecting to the meeting', 'Opening the socket, attempt 1'],
    ...['Setting quality of Grace', 'Answer missing'],
  ];
  await until(async () => (await names()).join().startsWith(worst.join()));
  await page.locator('.span.failed', { hasText: 'Setting quality' }).locator('.words').click();
  await see(page, '.details', 'The service did not answer within 3 s');
  await see(page, '.details dl', 'p-grace');

  // By keyboard: up to the parent, which is folded; then its details.
  await page.locator('#tree').focus();
  for (const key of ['Home', 'ArrowDown', 'ArrowLeft', 'ArrowLeft']) await page.keyboard.press(key);
  await until(async () => !(await names()).includes('Opening the socket, attempt 1'));
  await page.keyboard.press('Enter');
  await see(page, '.details dl', 'transport close');
  assert.deepEqual(page.trouble, []);
});

test('errors have a list of their own, which the filter narrows down', async () => {
  const page = await openPage();
  await see(page, '#errorCount', 'none');
  feed.send('participant', { ...PERSON, joinedAt: feed.now() });
  for (const code of [3001, 3002])
    feed.send('mark', { t: feed.now(), kind: 'error', text: `ERROR_${code}`, code, participantId: 'p' });
  await until(async () => (await words(page, '#errors li')).length === 2);
  assert.match((await words(page, '#errors li'))[0], /3002 ERROR_3002 Grace/);
  await page.locator('#filter').fill('3001');
  await see(page, '#errorCount', '1 of 2');
  assert.deepEqual(page.trouble, []);
});

test('a lost connection is told and comes back, with whatever there is then', async () => {
  feed.sendMeeting(feed.now() - MINUTE);
  const page = await openPage();
  await see(page, '#meeting', 'Planning');
  for (const how of ['reset', 503]) {
    feed.down(how);
    await see(page, '#link', 'Lost, reconnecting');
    assert.notEqual((await words(page, '.person')).length, 0);
    const nothing = { participants: [], marks: [], spans: [], events: [] };
    feed.all = { ...nothing, meeting: { id: `after ${how}`, state: 'CONNECTED' } };
    feed.up();
    await see(page, '#link', 'Live');
    await see(page, '#meeting', `after ${how}`);
    await gone(page, '.stream');
    sendStream();
    feed.send('samples', { t: feed.now(), streams: { v: SAMPLE } });
    await seeValue(page, 'v', 'bitrate', '1\u202f234 kbit/s');
  }
  const own = page.trouble.filter((line) => !line.startsWith('Failed to load resource'));
  assert.deepEqual(own, []);
});

test('a page that never got through says so, until it does', async () => {
  feed.down(503);
  const page = await openPage();
  await see(page, '#link', 'No connection, trying again');
  feed.up();
  await see(page, '#link', 'Live');
});

test('what lasted before a short loss of the connection lasts after it', async () => {
  sendStream();
  const page = await openPage();
  await see(page, '#state', 'CONNECTED');
  const limited = (words) => see(page, '[data-lane=limits] .value', words);
  for (const text of ['CPU DETECTED', 'BANDWIDTH DETECTED'])
    feed.send('mark', { t: feed.now() - 3 * MINUTE, kind: 'quality', text });
  await limited(/^CPU\nBANDWIDTH$/);
  const resolved = { t: feed.now(), kind: 'quality', text: 'CPU RESOLVED' };
  feed.down();
  await see(page, '#link', 'Lost, reconnecting');
  // What is older than two minutes isn't told again.
  Object.assign(feed.all, { marks: [resolved], meeting: { ...feed.all.meeting, state: 'RECONNECTING' } });
  feed.up();
  await see(page, '#state', 'RECONNECTING');
  await limited(/^BANDWIDTH$/);
  const own = page.trouble.filter((line) => !line.startsWith('Failed to load resource'));
  assert.deepEqual(own, []);
});

test('markup off the wire is text', async () => {
  const evil = '<img src=x onerror="document.title=1"><script>document.title=1</script>';
  feed.send('meeting', { id: evil, name: evil, localParticipantId: evil, state: evil });
  const id = '"]<b>';
  sendStream({ ...PERSON, name: evil, mode: evil }, { ...STREAM, id, kind: evil, codec: evil, state: evil });
  feed.send('meeting', { id: 'x', name: evil, localParticipantId: evil, state: evil });
  const mark = { t: feed.now(), text: `${evil} DETECTED`, code: evil, streamId: id, participantId: 'p' };
  for (const kind of ['state', 'quality', 'stream', 'participant', 'error', evil]) feed.send('mark', { ...mark, kind });
  const evils = { id: evil, name: evil, message: evil, category: evil };
  const attributes = { [evil]: evil, ['__proto__']: evil };
  feed.send('span', { ...SPAN, ...evils, start: feed.now(), attributes });
  const page = await openPage();
  await see(page, '#meeting', evil);
  await page.locator('.span .words').click();
  await see(page, '.details', evil);
  await page.locator('#filter').fill('<img');
  await see(page, '.span mark', '<img');
  await see(page, '.person', evil);
  await see(page, '#errors', evil);
  assert.equal(await page.locator('main img, main script, header img').count(), 0);
  assert.match(await page.title(), /^<img/);
  assert.deepEqual(page.trouble, []);
});

test('400 pixels are enough', async () => {
  feed.sendMeeting(feed.now() - MINUTE);
  const long = 'W'.repeat(300);
  feed.send('participant', { ...PERSON, name: long, mode: long, joinedAt: feed.now() });
  feed.send('stream', { participantId: 'p', stream: { ...STREAM, codec: `video/${long}`, startedAt: feed.now() } });
  feed.send('mark', { t: feed.now(), kind: 'error', code: 1, text: long });
  const words = { name: long, message: long, attributes: { [long]: long } };
  feed.send('span', { ...SPAN, ...words, id: 'w', start: feed.now() });
  const page = await openPage({ width: 400, height: 800 });
  await openFile(page, `${long}.json`, '');
  const fits = () => page.evaluate(() => document.documentElement.scrollWidth <= innerWidth);
  await see(page, '.person', long);
  await until(async () => (await ink(page, 'ada-v', 'bitrate')).all > 0);
  assert.ok(await fits());
  await page.locator('.panes button', { hasText: 'Spans' }).click();
  await page.locator('.span', { hasText: 'WWW' }).locator('.words').click();
  await see(page, '.details', long);
  assert.ok(await fits());
  await page.locator('#errors li', { hasText: '3015' }).getByRole('button').click();
  await page.locator('#timeline').waitFor({ state: 'visible' });
  assert.deepEqual(page.trouble, []);
});

test('it is drawn four times a second at most, and not while nobody sees it', async () => {
  sendStream();
  const page = await openPage({ frozenClock: true });
  await page.evaluate(() => {
    globalThis.drawn = 0;
    const { clearRect } = CanvasRenderingContext2D.prototype;
    CanvasRenderingContext2D.prototype.clearRect = function (...box) {
      if (this.canvas.dataset.metric === 'bitrate') globalThis.drawn += 1;
      return clearRect.apply(this, box);
    };
  });
  const drawnIn = async (ms) => {
    const before = await page.evaluate(() => globalThis.drawn);
    for (let passed = 0; passed < ms; passed += 100) {
      feed.send('samples', { t: feed.now(), streams: { v: SAMPLE } });
      await page.clock.runFor(100);
    }
    return (await page.evaluate(() => globalThis.drawn)) - before;
  };
  await until(async () => (await drawnIn(500)) > 0);
  const drawn = await drawnIn(5000);
  assert.ok(drawn >= 10 && drawn <= 21, `${drawn} in 5 s`);
  const hide = (hidden) =>
    page.evaluate((hidden) => {
      Object.defineProperty(document, 'hidden', { value: hidden, configurable: true });
      document.dispatchEvent(new Event('visibilitychange'));
    }, hidden);
  await hide(true);
  await drawnIn(500); // what was under way
  assert.equal(await drawnIn(2000), 0);
  await hide(false);
  assert.ok((await drawnIn(1000)) > 0);
  await page.clock.runFor(11_000);
  await see(page, '#link', 'Live, silent for 1');
  // Time alone lets go of what was over two minutes ago.
  const now = await page.evaluate(() => live.now());
  const start = now - 3 * MINUTE;
  feed.send('span', { ...SPAN, id: 'over', start });
  feed.send('span', { ...SPAN, id: 'reaches into them', start, durationMs: 2 * MINUTE });
  feed.send('event', { t: start, name: 'over', attributes: {} });
  feed.send('participant', { ...PERSON, leftAt: now });
  await page.waitForFunction(() => live.recording.people.get('p').leftAt !== null);
  await page.clock.runFor(1500);
  await see(page, '#spanCount', '1 span · 0 events');
  await page.clock.fastForward(121_000);
  await page.clock.runFor(500);
  await see(page, '#people', 'Nobody is here');
  await see(page, '#spanCount', '0 spans');
  assert.deepEqual(page.trouble, []);
});
