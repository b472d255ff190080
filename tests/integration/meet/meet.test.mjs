import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { createServer } from 'node:net';
import * as path from 'node:path';
import { test } from 'node:test';
import { temporaryFolder } from '../../../server/test/support.mjs';
import { join, joinAs, openPlace, readPng, Run } from './support.mjs';

const { service } = await openPlace();

const joining = (...args) => join(service, ...args);

test('bad arguments end with 2 and one line that says what is wrong', async () => {
  const whole = ['--service', '127.0.0.1:1', '--meeting', 'm', '--token', 't'];
  const cases = [
    [[], /--service/],
    [whole.slice(2), /--service/],
    [whole.slice(0, 2), /--meeting/],
    [whole.slice(0, 4), /KESTROVA_TOKEN/],
    [[...whole.slice(0, 4), '--token-file', '/nowhere'], /\/nowhere/],
    [[...whole, '--bogus'], /--bogus/],
    [[...whole, '--json=yes'], /--json/],
    [[...whole, '--duration'], /--duration/],
    [[...whole, '--duration', '10 parsecs'], /--duration/],
    [[...whole, '--duration', '0s'], /--duration/],
    [[...whole, '--duration', 'nan'], /--duration/],
    [[...whole, '--duration=1e300h'], /--duration/],
    [[...whole, '--expect', '-1'], /--expect/],
    [[...whole, '--tone-hz', 'inf'], /--tone-hz/],
    [[...whole, '--camera', 'x'], /--camera/],
    [[...whole, '--mic', '/nowhere.wav'], /--mic .*nowhere/],
    [[...whole, '--record', '/dev/null/x'], /--record/],
    [[...whole, '--mode', 'LOUD'], /--mode/],
    [[...whole, '--start', 'livestream'], /--start/],
    [[...whole, '--character-name', 'Tutor'], /--character ID/],
    [[...whole, '--relay-token', 't'], /--relay-to/],
    [[...whole, '--inspect', '65536'], /--inspect/],
    [[...whole, '--inspect=page'], /--inspect/],
    [[...whole, '--token', 'two words'], /token/],
  ];
  for (const [args, expected] of cases) {
    const run = new Run(args);
    assert.equal(await run.ended, 2, args.join(' '));
    assert.match(run.stderr, expected);
    assert.match(run.stderr, /^kestrova-meet: [^\n]+\n$/);
    assert.equal(run.stdout, '');
  }
});

test('--help and --version need nothing else', async () => {
  const help = new Run(['--help']);
  assert.equal(await help.ended, 0);
  assert.match(help.stdout, /KESTROVA_TOKEN/);
  const version = new Run(['--version']);
  assert.equal(await version.ended, 0);
  assert.match(version.stdout, /^kestrova-meet \d+\.\d+\.\d+\n$/);
});

test('a closed port ends quickly with 3', async () => {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  await new Promise((resolve) => server.close(resolve));
  const started = Date.now();
  const run = new Run(['--service', `127.0.0.1:${port}`, '--meeting', 'm', '--json'], {
    KESTROVA_TOKEN: 'any',
  });
  assert.equal(await run.ended, 3);
  assert.ok(Date.now() - started < 15000, 'before any time-out of a request');
  assert.match(run.stderr, new RegExp(`127\\.0\\.0\\.1:${port}: 3047 [^\n]+ \\(connection refused\\)\n$`));
  assert.equal(run.summary.exitCode, 3);
});

test('a service whose authority is not trusted is not talked to', async () => {
  const { args, env } = joinAs(service, 'm', 'Ada');
  const run = new Run(args, { ...env, SSL_CERT_FILE: '' });
  assert.equal(await run.ended, 3);
  assert.match(run.stderr, /^kestrova-meet: [^\n]+unknown authority: is SSL_CERT_FILE set\?\)\n$/);
});

test('refused tokens end with 4 and show no token', async () => {
  for (const [code, claims] of [
    [4002, { exp: Date.now() / 1000 - 3600 }],
    [4022, { roomId: 'another' }],
    [4023, { participantId: 'another' }],
  ]) {
    const { args, env } = joinAs(service, 'refused', 'Ada', claims);
    const token = env.KESTROVA_TOKEN;
    const run = new Run([...args, '--json', '--verbose'], env);
    assert.equal(await run.ended, 4, run.stderr);
    assert.match(run.stderr, new RegExp(`refused the token: ${code} `));
    assert.ok(!(run.stdout + run.stderr).includes(token), 'the token was written');
  }
});

test('two participants see and hear each other', async () => {
  const folder = temporaryFolder();
  const common = ['--expect', '1', '--snapshot', folder];
  const ada = joining('two', 'Ada / ../Ω', ...common, '--tone-hz', '440');
  await ada.event('joined');
  const grace = joining('two', 'Grace', ...common, '--tone-hz', '660', '--duration', '6s');
  assert.equal(await grace.ended, 0, grace.stderr);
  assert.equal(await ada.stop('SIGTERM'), 143, ada.stderr);
  for (const [run, tone, file] of [
    [ada, 660, 'Ada_-sees-Grace.png'],
    [grace, 440, 'Grace-sees-Ada_.png'],
  ]) {
    const [remote] = run.summary.remotes;
    assert.ok(run.summary.joinedMs < remote.firstPictureMs);
    assert.ok(remote.frames > 30 && remote.soundHeard);
    assert.ok(Math.abs(remote.hertz - tone) < 5, `${remote.hertz} Hz`);
    assert.equal(remote.snapshot, path.join(folder, file));
    const { width, height, pixels } = readPng(remote.snapshot);
    assert.deepEqual([width, height], [remote.width, remote.height]);
    assert.ok(width >= 160 && Math.abs(width / height - 16 / 9) < 0.02, `${width}x${height}`);
    // The picture's bars are bright and saturated on the left and dark blue on the right.
    const bar = (x) => [...pixels.subarray((10 * width + x) * 3, (10 * width + x) * 3 + 3)];
    const [bright, blue] = [bar(10), bar(width - 10)];
    assert.ok(Math.min(...bright) > 150, `${bright}`);
    assert.ok(blue[2] > 120 && blue[0] < 60 && blue[1] < 60, `${blue}`);
  }
  fs.rmSync(folder, { recursive: true });
});

test('nobody there although somebody was expected ends with 1', async () => {
  const run = joining('alone', 'Ada', '--expect', '1', '--duration', '500ms');
  assert.equal(await run.ended, 1);
  assert.match(run.stderr, /0 of 1/);
  assert.deepEqual(run.summary.remotes, []);
});

test('signals leave the meeting properly', async () => {
  const witness = joining('signals', 'Witness', '--camera', 'none', '--mic', 'none');
  await witness.event('joined');
  for (const [signal, code] of [
    ['SIGINT', 130],
    ['SIGTERM', 143],
  ]) {
    const run = joining('signals', signal);
    await run.event('joined');
    assert.equal(await run.stop(signal), code);
    assert.equal(run.events.filter(({ event }) => event === 'left').length, 1);
    assert.equal(run.summary.exitCode, code);
    await witness.event('participantLeft', ({ name }) => name === signal);
  }
  assert.equal(await witness.stop('SIGTERM'), 143);
  const left = witness.events.filter(({ event }) => event === 'participantLeft');
  assert.deepEqual(left.map(({ reason }) => reason), [1101, 1101]);
});

test('a signal before the join is done ends at once', async () => {
  const silent = createServer().listen(0, '127.0.0.1');
  await once(silent, 'listening');
  const sockets = [];
  const connected = new Promise((resolve) =>
    silent.on('connection', (socket) => {
      sockets.push(socket);
      socket.on('error', () => {});
      resolve();
    }),
  );
  const run = new Run(['--service', `127.0.0.1:${silent.address().port}`, '--meeting', 'm'], {
    KESTROVA_TOKEN: 'any',
  });
  await connected;
  const asked = Date.now();
  assert.equal(await run.stop('SIGINT'), 130);
  assert.ok(Date.now() - asked < 5000);
  for (const socket of sockets) socket.destroy();
  silent.close();
});

test('a meeting that others end, or that removes somebody, ends with 5', async () => {
  const cases = [
    { action: 'closeRoom', body: { roomId: 'closed' }, meeting: 'closed', reason: 1006 },
    { action: 'removePeer', body: { roomId: 'gone', peerId: 'ada' }, meeting: 'gone', reason: 1002 },
  ];
  for (const { action, body, meeting, reason } of cases) {
    const run = joining(meeting, 'Ada', '--participant', 'ada');
    await run.event('joined');
    await service.control(action, body);
    assert.equal(await run.ended, 5, run.stderr);
    const left = run.events.filter(({ event }) => event === 'left');
    assert.deepEqual(left.map((event) => event.reason), [reason]);
  }
});
