import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { test } from 'node:test';
import { join, openPlace } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service, folder } = await openPlace();

const joining = (...args) => join(service, ...args);

test('keys turn microphone and camera off and on, and leave', async () => {
  const witness = joining('keys', 'Witness');
  await witness.event('joined');
  const ada = new TerminalRun(service, folder, 'keys', 'Ada');
  const count = (event, kind) =>
    witness.events.filter((entry) => entry.event === event && entry.kind === kind).length;
  const nth = (event, kind, n) =>
    witness.event(event, (entry) => entry.kind === kind && count(event, kind) >= n);

  await nth('streamEnabled', 'video', 1);
  await nth('streamEnabled', 'audio', 1);
  await ada.shows(/sound of Witness/);
  ada.press('?');
  await ada.shows(/v webcam/);
  ada.press('v');
  await nth('streamDisabled', 'video', 1);
  ada.press('m');
  await nth('streamDisabled', 'audio', 1);
  ada.press('v');
  await nth('streamEnabled', 'video', 2);
  ada.press('m');
  await nth('streamEnabled', 'audio', 2);
  for (const quality of ['medium', 'low', 'high']) {
    ada.press('q');
    await ada.shows(new RegExp(`quality of Witness: ${quality}`));
  }
  ada.press('p');
  await ada.shows(/pinning Witness/);
  ada.press('xyz\u001b[A'); // keys without a meaning
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await witness.event('participantLeft', ({ name }) => name === 'Ada');
  await witness.stop('SIGTERM');
});

test('the terminal gets its mode back whatever ends the program', async () => {
  for (const [signal, status] of [
    ['SIGTERM', 143],
    ['SIGINT', 130],
    ['SIGQUIT', 131],
    ['SIGSEGV', 139],
  ]) {
    const run = new TerminalRun(service, folder, 'signals', signal);
    await run.shows(/microphone/);
    run.kill(signal);
    assert.equal(await run.finish(), status, signal);
  }
});

test('--record writes each participant to files of equal length', async () => {
  const recordings = path.join(folder, 'recordings');
  const grace = joining('record', 'Grace');
  await grace.event('joined');
  const ada = joining('record', 'Ada', '--duration', '4s', '--record', recordings);
  assert.equal(await ada.ended, 0, ada.stderr);
  await grace.stop('SIGTERM');

  assert.deepEqual(fs.readdirSync(recordings).sort(), ['Grace.wav', 'Grace.y4m']);
  const wav = fs.readFileSync(path.join(recordings, 'Grace.wav'));
  assert.equal(wav.readUInt32LE(40), wav.length - 44);
  const soundSeconds = (wav.length - 44) / wav.readUInt32LE(28);
  const header = 'YUV4MPEG2 W640 H360 F30:1 Ip A1:1 C420mpeg2\n';
  const { size } = fs.statSync(path.join(recordings, 'Grace.y4m'));
  const pictures = (size - header.length) / ((640 * 360 * 3) / 2 + 'FRAME\n'.length);
  assert.ok(Number.isInteger(pictures), `${pictures} pictures`);
  assert.ok(pictures / 30 > 2.5, `${pictures / 30} s`);
  assert.ok(Math.abs(pictures / 30 - soundSeconds) < 0.1, `${pictures / 30} s, ${soundSeconds} s`);
  const samples = new Int16Array(wav.buffer, wav.byteOffset + 44, (wav.length - 44) >> 1);
  assert.ok(samples.some((sample) => Math.abs(sample) > 1000), 'the tone is heard');
});
