import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { after, before, test } from 'node:test';
import { openService, temporaryFolder, until } from '../../../server/test/support.mjs';
import { Desktop, missingForDesktop } from './desktop.mjs';
import { joinAs, readPng, Run, start } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const sender = process.env.KESTROVA_BROADCAST;
const screencopy = process.env.KESTROVA_SCREENCOPY;
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

const quiet = ['--camera', 'none', '--mic', 'none'];
const joining = (meeting, name, env, ...words) => {
  const { args, env: secrets } = joinAs(service, meeting, name);
  return new Run([...args, '--json', ...quiet, ...words], { ...secrets, ...env });
};
const enabled = (run) => run.event('streamEnabled', ({ kind }) => kind === 'share');
const disabled = (run) => run.event('streamDisabled', ({ kind }) => kind === 'share');

test('a screen is shared after the join, and ends with the meeting', async () => {
  const grace = joining('plain', 'Grace');
  await grace.event('joined');
  const ada = joining('plain', 'Ada', {}, '--screen', '--screen-with', '--pattern 640x360');
  await enabled(grace);
  await grace.event('firstShare');
  assert.equal(await ada.stop('SIGINT'), 130);
  await disabled(grace);
  await grace.stop('SIGTERM');
});

test('the key s begins and ends it', async () => {
  const grace = joining('keys', 'Grace');
  await grace.event('joined');
  const more = [...quiet, '--screen-with', '--pattern 320x180'];
  const ada = new TerminalRun(service, folder, 'keys', 'Ada', ...more);
  await ada.shows(/screen/);
  await grace.event('participantJoined');
  await ada.shows(/joined/);
  ada.press('s');
  await enabled(grace);
  await grace.event('firstShare');
  ada.press('s');
  await disabled(grace);
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await grace.stop('SIGTERM');
});

test('a sender that is started by hand is taken, whoever comes first', async () => {
  const runtime = path.join(folder, 'runtime');
  fs.mkdirSync(runtime, { mode: 0o700 });
  const env = { XDG_RUNTIME_DIR: runtime };
  const grace = joining('hand', 'Grace');
  await grace.event('joined');
  const byHand = start(sender, ['--pattern', '320x180'], {
    env: { ...process.env, ...env },
    stdio: 'ignore',
  });
  const ended = once(byHand, 'close');
  const ada = joining('hand', 'Ada', env, '--screen', '--screen-program', '');
  await enabled(grace);
  await grace.event('firstShare');
  // More senders are turned away, and leave the share of the first one alone.
  for (let more = 0; more < 2; ++more) {
    const other = start(sender, ['--pattern', '320x180'], {
      env: { ...process.env, ...env },
      stdio: 'ignore',
    });
    assert.deepEqual(await once(other, 'close'), [0, null]);
    assert.equal(byHand.exitCode, null);
  }
  await ada.stop('SIGTERM');
  assert.deepEqual(await ended, [0, null]); // the share is over
  assert.deepEqual(fs.readdirSync(path.join(runtime, 'kestrova', 'kestrova')), []);
  await grace.stop('SIGTERM');
});

test('what keeps a screen from being shared is told', async () => {
  const run = joining('none', 'Ada', { DISPLAY: '', WAYLAND_DISPLAY: '' }, '--screen');
  assert.equal((await run.event('error')).code, 3061);
  await run.stop('SIGTERM');
  const missing = joining('none', 'Ada', {}, '--screen', '--screen-program', '/nowhere');
  assert.equal((await missing.event('error')).code, 3061);
  await missing.stop('SIGTERM');
});

const missing = missingForDesktop();
const wayland = {
  skip: missing.length > 0 && `this machine has no ${missing.join(', ')}`,
  timeout: 120000,
};

/** Whether the middle of a picture has about that colour. */
const isPainted = ({ width, height, pixels }, [r, g, b]) => {
  const at = (Math.floor(height / 2) * width + Math.floor(width / 2)) * 3;
  return [r, g, b].every((value, i) => Math.abs(pixels[at + i] - value) < 12);
};

test('a Wayland desktop is shared through its portal', wayland, async () => {
  const colour = '#20A0E0';
  const desktop = await Desktop.open({ colour, size: '640x360', screencopy });
  const painting = setInterval(() => desktop.paint(colour), 300);
  try {
    const ada = joining('wayland', 'Ada', desktop.env, '--screen');
    const looksPainted = async (name) => {
      const pictures = path.join(folder, name);
      const run = joining('wayland', name, {}, '--snapshot', pictures);
      await run.event('firstShare');
      await run.stop('SIGINT');
      const picture = readPng(path.join(pictures, `${name}-sees-Ada.png`));
      return isPainted(picture, [0x20, 0xa0, 0xe0]);
    };
    await until(() => looksPainted('Grace')); // it is grey at first
    clearInterval(painting);
    assert.ok(await looksPainted('Later')); // while it stands still
    const watcher = joining('wayland', 'Watcher', {});
    await watcher.event('firstShare');
    await desktop.close();
    await disabled(watcher);
    await watcher.stop('SIGTERM');
    await ada.stop('SIGTERM');
  } finally {
    clearInterval(painting);
    await desktop.close();
  }
});

test("the user's no is told as such", wayland, async () => {
  const desktop = await Desktop.open({
    colour: '#20A0E0',
    size: '640x360',
    chooser: '/bin/false',
    screencopy,
  });
  try {
    const ada = joining('refused', 'Ada', desktop.env, '--screen');
    assert.equal((await ada.event('error')).code, 3016);
    await ada.stop('SIGTERM');
  } finally {
    await desktop.close();
  }
});
