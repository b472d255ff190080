import * as assert from 'node:assert/strict';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { after, before, test } from 'node:test';
import { openService, temporaryFolder } from '../../../server/test/support.mjs';
import { join, readPng } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

let service;
let folder;
before(async () => {
  service = await openService();
  folder = temporaryFolder();
});
after(async () => {
  await service.close();
  fs.rmSync(folder, { recursive: true });
});

const joining = (...args) => join(service, ...args);

const photo = process.env.KESTROVA_PERSON_PHOTO;

test('a picture stands in for the room, which nobody has to be in', async () => {
  const ada = joining('room', 'Ada', '--mic', 'none', '--background', photo);
  const there = await ada.event('background');
  assert.equal(there.there, true);
  const pictures = path.join(folder, 'seen');
  const grace = joining('room', 'Grace', '--camera', 'none', '--mic', 'none', '--snapshot', pictures);
  await grace.event('sample', ({ people }) =>
    people.some((one) => one.name === 'Ada' && one.frames > 10 && one.width >= 640),
  );
  await grace.stop('SIGINT');
  await ada.stop('SIGINT');
  const { width, height, pixels } = readPng(path.join(pictures, 'Grace-sees-Ada.png'));
  // The suit of the photo, stretched to the camera's shape, at a place where the test picture is not orange.
  const at = (Math.floor(height * 0.6) * width + Math.floor(width * 0.25)) * 3;
  const [red, green, blue] = pixels.subarray(at, at + 3);
  assert.ok(red > 150 && green < 140 && blue < 110, `${red} ${green} ${blue}`);
});

test('what is no background leaves the camera off, and is told at once where that can be', async () => {
  const missing = joining('none', 'Ada', '--background', path.join(folder, 'nothing.png'));
  assert.equal(await missing.ended, 2);
  assert.match(missing.stderr, /--background takes a file, a URL or blur/);
  fs.writeFileSync(path.join(folder, 'text.png'), 'no picture');
  const ada = joining('none', 'Ada', '--mic', 'none', '--background', path.join(folder, 'text.png'));
  assert.equal((await ada.event('background')).there, false);
  await ada.stop('SIGINT');
  assert.deepEqual(ada.all('streamEnabled', 'kind'), []);
});

test('keys write still pictures and take the background away', async () => {
  const stills = path.join(folder, 'stills');
  const ada = new TerminalRun(service, folder, 'keys', 'Ada', '--background', 'blur', '--snapshot', stills);
  await ada.shows(/the background is there/);
  const witness = joining('keys', 'Witness', '--camera', 'none', '--mic', 'none');
  await witness.event('streamEnabled', ({ kind }) => kind === 'video');
  ada.press('i');
  await ada.shows(/still picture in .*still-1\.jpg/);
  const bytes = fs.readFileSync(path.join(stills, 'still-1.jpg'));
  assert.equal(bytes.toString('hex', 0, 3), 'ffd8ff');
  assert.equal(bytes.toString('hex', bytes.length - 2), 'ffd9', 'whole');
  ada.press('b');
  await ada.shows(/background off/);
  ada.press('b');
  await ada.shows(/background on/);
  ada.press('v');
  await witness.event('streamDisabled', ({ kind }) => kind === 'video');
  ada.press('i');
  await ada.shows(/no still picture: the webcam is off/);
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await witness.stop('SIGTERM');
});
