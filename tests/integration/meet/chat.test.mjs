import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as https from 'node:https';
import * as path from 'node:path';
import { text } from 'node:stream/consumers';
import { test } from 'node:test';
import { openService } from '../../../server/test/support.mjs';
import { joinAs, openPlace, start, talk } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service, folder } = await openPlace({ grace: 20_000 });

const talking = (...args) => talk(service, ...args);
const saying = (message) => (entry) => entry.message === message;
const publish = (roomId, message, more) =>
  service.control('publish', { roomId, topic: 'CHAT', persist: true, message, ...more });
/** Waits until it has heard what was said before, so that all that follows is new. */
const listens = (run) => run.event('historyEnd');

test('who comes later gets the history first, and everybody each message once', async () => {
  const ada = talking('talk', 'Ada');
  ada.say('one', '//two', '', 'thr\u{1F600}ee');
  await ada.event('message', saying('thr\u{1F600}ee'));
  const grace = talking('talk', 'Grace');
  assert.equal((await listens(grace)).count, 3);
  assert.deepEqual(grace.all('history', 'message'), ['one', '/two', 'thr\u{1F600}ee']);
  assert.ok(Date.parse(grace.all('history', 'timestamp')[0]));

  grace.say('hello Ada');
  const { senderName, senderId } = await ada.event('message', saying('hello Ada'));
  const { id } = await ada.event('participantJoined');
  assert.deepEqual([senderName, senderId], ['Grace', id]);
  await grace.event('message', saying('hello Ada'));
  assert.deepEqual(grace.all('message', 'message'), ['hello Ada']);
  await service.control('skipSequence', { roomId: 'talk', topic: 'CHAT', by: 3 });
  await publish('talk', 'after the hole');
  await ada.event('message', saying('after the hole'));
  assert.deepEqual(ada.all('drop', 'count'), [3]);
  const told = ada.events.map(({ event }) => event);
  assert.ok(told.lastIndexOf('drop') < told.lastIndexOf('message'), 'in its place');

  for (const run of [ada, grace]) assert.equal(await run.stop('SIGTERM'), 143);
  assert.equal(ada.summary.messagesBack, 3);
  assert.ok(ada.summary.messageRoundTripMs > 0);
});

test('store and files', async () => {
  const ada = talking('store', 'Ada', '--participant', 'ada');
  const grace = talking('store', 'Grace');
  grace.say('/get colour', '/watch colour');
  assert.equal((await grace.event('value')).value, null);
  await grace.event('watching');
  ada.say('/set colour  deep blue', '/get colour');
  assert.equal((await ada.event('value')).value, 'deep blue');
  ada.say('/set colour');
  await grace.event('store', ({ value }) => value === null);
  assert.deepEqual(grace.all('store', 'value'), ['deep blue', null]);
  assert.deepEqual(grace.all('store', 'updatedBy'), ['ada', 'ada']);

  const file = path.join(folder, 'a note.txt');
  fs.writeFileSync(file, 'two\nlines');
  ada.say(`/file ${file}`);
  const { url, bytes } = await ada.event('uploaded');
  assert.equal(bytes, 9);
  const { payload } = await grace.event('message', saying(url));
  assert.equal(payload.file, 'a note.txt');
  const headers = { authorization: service.token() };
  const [answer] = await once(https.get(url, { ca: service.ca, headers, agent: false }), 'response');
  assert.equal(await text(answer), 'two\nlines');
  for (const run of [ada, grace]) await run.stop('SIGTERM');
});

test('a line that can’t be done is told, and the others are done', async () => {
  const run = talking('odd', 'Ada');
  const large = path.join(folder, 'large');
  fs.writeFileSync(large, '');
  fs.truncateSync(large, 16 * 1024 * 1024 + 1);
  const odd = [
    ['/nope', /no \/nope; commands: \/set/],
    ['/get', /\/get needs more/],
    [`/set key ${'x'.repeat(1025)}`, /1024 bytes/],
    ['/file /nowhere', /\/nowhere is no file/],
    [`/file ${folder}`, /is no file/],
    [`/file ${large}`, /larger than 16 MiB/],
    ['/file /dev/null', /is no file/],
  ];
  run.say(...odd.map(([line]) => line));
  run.child.stdin.write(Buffer.from([0xff, 0xfe, 0x0a]));
  run.child.stdin.write('x'.repeat(1024 * 1024)); // a longer line would be cut here
  run.child.stdin.end('!\nthe end');
  assert.equal(await run.ended, 6, run.stderr);
  assert.match(run.stderr, /8 lines could not be done/);
  const told = run.all('chatError', 'message');
  odd.forEach(([, pattern], i) => assert.match(told[i], pattern));
  assert.match(told[odd.length], /not UTF-8/);
  const sent = run.all('sent', 'message');
  assert.deepEqual(sent.map(({ length }) => length), [1024 * 1024, 1, 7]);
});

test('a script that ends leaves when all it said is acknowledged, or after --duration', async () => {
  const witness = talking('script', 'Witness');
  await listens(witness);
  await service.control('delayPubSubAck', { roomId: 'script', op: 'publish', ms: 300, count: 3 });
  const lines = ['1', '2', '3', '4'];
  const piped = talking('script', 'Script');
  piped.child.stdin.end(lines.join('\n'));
  assert.equal(await piped.ended, 0, piped.stderr);
  assert.deepEqual(piped.all('sent', 'message'), lines);
  await witness.event('message', saying('4'));
  assert.deepEqual(witness.all('message', 'message'), lines);

  const { args, env } = joinAs(service, 'script', 'Closed');
  const closed = start('sh', ['-c', 'exec "$@" <&-', 'sh', process.env.KESTROVA_MEET, ...args, '--chat'], {
    env: { ...process.env, ...env },
    stdio: 'ignore',
  });
  assert.deepEqual(await once(closed, 'close'), [0, null], 'a closed input is an empty one');

  const stays = talking('script', 'Stays', '--duration', '4s');
  stays.child.stdin.end();
  await listens(stays);
  await publish('script', 'still there?');
  await stays.event('message', saying('still there?'));
  assert.equal(await stays.ended, 0, stays.stderr);
  await witness.stop('SIGTERM');
});

test('a lost connection loses no line and shows nothing twice', async () => {
  const ada = talking('lossy', 'Ada', '--participant', 'ada');
  ada.say('/watch key', 'before');
  await ada.event('message', saying('before'));
  await service.control('dropSocket', { roomId: 'lossy', peerId: 'ada', downMs: 3000 });
  await ada.event('state', ({ state }) => state === 'RECONNECTING');
  await publish('lossy', 'missed');
  const file = path.join(folder, 'meanwhile.txt');
  fs.writeFileSync(file, 'x');
  ada.say(`/file ${file}`, 'meanwhile');
  await ada.event('message', saying('meanwhile'));
  assert.deepEqual(ada.all('history', 'message'), ['missed']);
  const { url } = await ada.event('uploaded');
  assert.deepEqual(ada.all('message', 'message'), ['before', url, 'meanwhile']);
  assert.deepEqual(ada.all('historyEnd', 'count'), [0, 1]);
  await service.control('setStoreValue', { roomId: 'lossy', key: 'key', value: 'v' });
  await ada.event('store', ({ value }) => value === 'v');

  // The topic server's own connection comes back, too, and what was missed is fetched.
  await service.control('dropPubSub', { roomId: 'lossy', peerId: 'ada', downMs: 300 });
  await publish('lossy', 'missed, too');
  ada.say('again');
  await ada.event('sent', saying('again'));
  await ada.event('history', saying('missed, too'));
  await publish('lossy', 'heard again');
  await ada.event('message', saying('heard again'));
  assert.deepEqual(ada.all('chatError', 'message'), []);
  assert.equal(await ada.stop('SIGTERM'), 143);
});

test('a service without a topic server', async () => {
  const plain = await openService({ pubsubUrl: 'off' });
  try {
    const ada = talk(plain, 'plain', 'Ada');
    ada.say('stored');
    await ada.event('message', saying('stored'));
    const grace = talk(plain, 'plain', 'Grace');
    assert.equal((await listens(grace)).count, 1);
    grace.say('heard');
    await ada.event('message', saying('heard'));
    for (const run of [ada, grace]) await run.stop('SIGTERM');
  } finally {
    await plain.close();
  }
});

test('on a terminal lines are edited, and nothing that others send controls it', async () => {
  const witness = talking('tty', 'Witness', '--participant', 'witness');
  await listens(witness);
  const quiet = ['--chat', '--camera', 'none', '--mic', 'none'];
  const ada = new TerminalRun(service, folder, 'tty', 'Ada', ...quiet);
  await ada.shows(/commands: \/set/);
  await witness.event('participantJoined');
  // "mvpl" are keys without --chat, and the arrow is none here.
  ada.press('gone\u0015mvpl é\u{1F600}\u007f\u007f\u001b[Ax y z\u0017!\r');
  await witness.event('message', saying('mvpl x y !'));
  await ada.shows(/\d\d:\d\d:\d\d Ada: mvpl x y !/);

  ada.press('half a li');
  await ada.shows(/> half a li/);
  await publish('tty', '\u001b[2Jgot\u009b31m\r\nyou', {
    senderName: 'E\u001b]0;ve\u0007',
    timestamp: '\u001b[5m',
  });
  await ada.shows(/--:--:-- E\?]0;ve\?: \?\[2Jgot\?31m\?\?you\r?\n> half a li/);
  for (const sequence of ['\u001b[2J', '\u001b[5m', '\u001b]0;', '\u009b'])
    assert.ok(!ada.output.includes(sequence), JSON.stringify(sequence));
  ada.press('\u0004ne\u0001\r'); // Ctrl-D ends nothing in the middle of a line
  await witness.event('message', saying('half a line'));
  ada.press('/nonsense\r');
  await ada.shows(/! there is no \/nonsense/);
  ada.press('\u0004');
  assert.equal(await ada.finish(), 0);
  await witness.stop('SIGTERM');
});
