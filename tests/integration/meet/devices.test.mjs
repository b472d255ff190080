import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { test } from 'node:test';
import { setTimeout as sleep } from 'node:timers/promises';
import { temporaryFolder } from '../../../server/test/support.mjs';
import { joinAs, openPlace, Run, start } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service } = await openPlace();

const joining = (meeting, name, more, ...words) => {
  const { args, env } = joinAs(service, meeting, name);
  return new Run([...args, '--json', ...words], { ...env, ...more });
};
const leave = async (...runs) => {
  for (const run of runs) assert.equal(await run.stop('SIGINT'), 130);
};

/** A camera that isn't there: `words` say what it is like. */
const withCamera = (words) => ({
  LD_PRELOAD: process.env.KESTROVA_FAKEVIDEO,
  FAKEVIDEO: `/dev/video0 card=Desk_Camera bus=usb-1 modes=YUYV:640x480@30,MJPG:1280x720@30 ${words}`,
});

const sample = (run, name, matches) =>
  run.event('sample', ({ people }) => people.some((one) => one.name === name && matches(one)));

test('a camera is seen by the others until it is unplugged, and the meeting lives on', async () => {
  const ada = joining('camera', 'Ada', withCamera('unplug=120'), '--camera', '/dev/video0');
  const grace = joining('camera', 'Grace', {}, '--camera', 'none');
  const seen = await sample(grace, 'Ada', (one) => one.frames > 15);
  assert.ok(seen.people.some((one) => one.name === 'Ada' && one.width > 0));

  const ended = await ada.event('error');
  assert.equal(ended.code, 3027, JSON.stringify(ended));
  await grace.event('streamDisabled', (stream) => stream.name === 'Ada' && stream.kind === 'video');
  await sample(grace, 'Ada', (one) => one.streams.join() === 'audio' && one.levelDb > -40);
  await leave(ada, grace);
});

const roomAndSpeaker = [
  'module-null-sink sink_name=speaker norewinds=1',
  'module-remap-source source_name=microphone master=speaker.monitor',
  'module-always-sink',
];

/** A sound server of the test's own; its microphone hears what its speaker plays, unless said otherwise. */
async function openSoundServer(devices = roomAndSpeaker) {
  const folder = temporaryFolder();
  const socket = path.join(folder, 'native');
  const modules = [
    `module-native-protocol-unix auth-anonymous=1 socket=${socket}`,
    ...devices,
  ];
  const options = ['-n', '--daemonize=no', '--exit-idle-time=-1', '--use-pid-file=no'];
  const quiet = ['--disable-shm=yes', '--realtime=no', '--high-priority=no', '--log-level=error'];
  const child = start(
    'pulseaudio',
    [...options, ...quiet, ...modules.flatMap((module) => ['-L', module])],
    {
      env: { ...process.env, HOME: folder, XDG_RUNTIME_DIR: folder, PULSE_RUNTIME_PATH: folder },
      stdio: ['ignore', 'ignore', 'inherit'],
    },
  );
  while (!fs.existsSync(socket)) await sleep(20);
  return {
    env: { PULSE_SERVER: `unix:${socket}`, HOME: folder },
    async close() {
      child.kill('SIGTERM');
      if (child.exitCode === null) await once(child, 'close');
      fs.rmSync(folder, { recursive: true, force: true });
    },
  };
}

test('what one meeting plays on the speaker, another hears from the microphone', async () => {
  const sound = await openSoundServer();
  try {
    const quiet = ['--camera', 'none'];
    const runs = [
      joining('loud', 'Tone', {}, ...quiet, '--tone-hz', '660'),
      joining('loud', 'Room', sound.env, ...quiet, '--mic', 'none', '--speaker', 'speaker'),
      joining('quiet', 'Desk', sound.env, ...quiet, '--mic', 'default'),
      joining('quiet', 'Ear', {}, ...quiet, '--mic', 'none'),
    ];
    await sample(runs[3], 'Desk', (one) => Math.abs(one.hertz - 660) < 10 && one.levelDb > -40);
    await leave(...runs);
  } finally {
    await sound.close();
  }
});

/** A microphone that hears a tone. */
const toneMicrophone = (name, hertz) => [
  `module-null-sink sink_name=${name}_air norewinds=1`,
  `module-sine sink=${name}_air frequency=${hertz}`,
  `module-remap-source source_name=${name} master=${name}_air.monitor source_properties=device.description=The-${name}`,
];

test('microphones are listed, taken by their names and changed while they are heard', async () => {
  const sound = await openSoundServer([
    ...toneMicrophone('desk', 500),
    ...toneMicrophone('cam', 900),
  ]);
  const folder = temporaryFolder();
  try {
    const list = new Run(['--list-devices', '--json'], sound.env);
    assert.equal(await list.ended, 0);
    assert.deepEqual(list.events[0].microphones, ['The-desk', 'The-cam']);
    const nowhere = new Run(['--list-devices'], { PULSE_SERVER: 'unix:/nowhere' });
    assert.equal(await nowhere.ended, 0);
    assert.match(nowhere.stdout, /^microphones: none$/m);

    const grace = joining('mics', 'Grace', {}, '--camera', 'none', '--mic', 'none');
    await grace.event('joined');
    const own = [sound.env, '--camera', 'none', '--mic', 'The-cam'];
    const ada = new TerminalRun(service, folder, 'mics', 'Ada', ...own);
    const hears = (hertz) => sample(grace, 'Ada', (one) => Math.abs(one.hertz - hertz) < 15);
    await hears(900);
    ada.press('n');
    await ada.shows(/microphone: The-desk/);
    await hears(500);
    assert.ok(!grace.events.some(({ event }) => event === 'streamDisabled'));
    ada.press('l');
    assert.equal(await ada.finish(), 0);
    await leave(grace);
  } finally {
    await sound.close();
    fs.rmSync(folder, { recursive: true });
  }
});
