// Starts the local meeting service, lets Ada and Grace meet in it, and shows what each sees and hears
// of the other. Exits with 0 only if picture and sound went both ways. Everything started here is
// ended here.
import { spawn, execFileSync } from 'node:child_process';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as os from 'node:os';
import * as path from 'node:path';
import { createInterface } from 'node:readline';
import { drawTable, progressLine } from './demo-table.mjs';

const root = path.join(import.meta.dirname, '..');
const folder = path.join(root, 'build/demo');
const program =
  process.env.KESTROVA_MEET ?? path.join(root, 'build/release/apps/kestrova-meet/kestrova-meet');
const SECONDS = 10;
const START_MS = 20_000;
// Joining, leaving and a slow machine on top of the ten seconds.
const MEETING_MS = (SECONDS + 45) * 1000;
const GRACE_MS = 3000;

const CAST = [
  { name: 'Ada', tone: 440 },
  { name: 'Grace', tone: 660 },
];

const children = new Set();
let interrupted = 0; // the exit code of the signal that came

/** In a session of its own: Ctrl-C is for this program, which then ends the others in order. */
function start(command, args, options) {
  const child = spawn(command, args, { ...options, detached: true });
  children.add(child);
  child.ended = new Promise((resolve) => {
    child.once('error', (error) => resolve({ code: 127, error }));
    child.once('close', (code, signal) => resolve({ code, signal }));
  });
  child.ended.then(() => children.delete(child));
  return child;
}

/** Those who meet leave before the service goes away under them. */
function endMeeting(signal) {
  const guests = [...children].filter((child) => child.spawnfile === program);
  for (const child of guests.length ? guests : children) child.kill(signal);
}

async function endAll() {
  const running = [...children];
  for (const child of running) child.kill('SIGTERM');
  const late = setTimeout(() => {
    for (const child of children) child.kill('SIGKILL');
  }, GRACE_MS);
  await Promise.all(running.map((child) => child.ended));
  clearTimeout(late);
}

function within(ms, promise, what) {
  let timer;
  const late = new Promise((_, reject) => {
    timer = setTimeout(() => reject(new Error(`${what} within ${ms / 1000} s`)), ms);
  });
  return Promise.race([promise, late]).finally(() => clearTimeout(timer));
}

async function startService(state) {
  const service = start(
    path.join(root, 'server/bin/service'),
    ['--port', '0', '--state', state, '--with-parent', '--log-level', 'warn'],
    { stdio: ['pipe', 'pipe', 'pipe'] },
  );
  let said = '';
  service.stderr.on('data', (data) => {
    said = (said + data).slice(-2000);
  });
  service.stdin.on('error', () => {});
  const failed = service.ended.then(() => {
    throw new Error(`the meeting service didn't start: ${said.trim() || 'it said nothing'}`);
  });
  failed.catch(() => {});
  const lines = createInterface({ input: service.stdout });
  const [line] = await within(
    START_MS,
    Promise.race([once(lines, 'line'), failed]),
    'the meeting service was not ready',
  );
  return JSON.parse(line);
}

function join(person, ready, state, onSample) {
  const token = execFileSync(
    path.join(root, 'server/bin/token'),
    ['--state', state, '--meeting', 'demo', '--expires', '1h'],
    { encoding: 'utf8' },
  ).trim();
  const args = ['--service', ready.service, '--meeting', 'demo', '--name', person.name];
  args.push('--camera', 'pattern', '--mic', 'tone', '--tone-hz', String(person.tone));
  args.push('--duration', `${SECONDS}s`, '--expect', '1', '--snapshot', folder, '--json', '--chat');
  const child = start(program, args, {
    env: { ...process.env, SSL_CERT_FILE: ready.ca, KESTROVA_TOKEN: token },
    stdio: ['pipe', 'pipe', 'pipe'],
  });
  child.stdin.on('error', () => {}); // it has ended
  const record = fs.createWriteStream(path.join(folder, `${person.name}.ndjson`));
  child.stdout.pipe(record);
  child.stderr.on('data', (data) => {
    person.complaints = (person.complaints ?? '') + data;
  });
  createInterface({ input: child.stdout }).on('line', (line) => {
    const event = JSON.parse(line);
    if (event.event === 'sample') {
      person.sample = event;
      if (event.state === 'JOINED')
        child.stdin.write(`${person.name} is here for ${event.ms} ms\n`);
      onSample(person);
    }
    if (event.event === 'summary') person.summary = event;
  });
  return child.ended.then(({ code, signal, error }) => {
    person.exit = error ? error.message : (code ?? signal);
  });
}

/** Whether `person` saw and heard the other, and at the other's pitch. */
function report(person, other) {
  const remote = person.summary?.remotes.find(({ name }) => name === other.name);
  const flowed = person.exit === 0 && remote?.flowed === true;
  const rightPitch = Math.abs((remote?.hertz ?? 0) - other.tone) < 10;
  const mark = flowed && rightPitch ? '✓' : '✗';
  console.log(`${mark} ${person.name} joined in ${person.summary?.joinedMs ?? '–'} ms`);
  if (remote) {
    console.log(
      `  saw ${other.name}: first picture after ${remote.firstPictureMs ?? '–'} ms, ` +
        `${remote.frames} pictures, ${remote.width}x${remote.height}`,
    );
    const pitch = remote.hertz ? ` at ${remote.hertz.toFixed(1)} Hz` : '';
    console.log(`  heard ${other.name}: ${remote.soundHeard ? `yes${pitch}` : 'no'}`);
    const { messageRoundTripMs: ms, messagesBack } = person.summary;
    const back = ms ? `${ms.toFixed(1)} ms, median of ${messagesBack}` : 'none';
    console.log(`  messages there and back: ${back}`);
    if (remote.snapshot) console.log(`  ${path.relative(process.cwd(), remote.snapshot)}`);
  } else {
    console.log(`  never met ${other.name}`);
  }
  if (person.complaints) console.log(`  ${person.complaints.trim()}`);
  if (person.exit !== 0) console.log(`  kestrova-meet ended with ${person.exit}`);
  return flowed && rightPitch;
}

async function demo() {
  if (!fs.existsSync(program)) throw new Error(`${program} isn't built; run "make demo"`);
  fs.mkdirSync(folder, { recursive: true });
  const state = fs.mkdtempSync(path.join(os.tmpdir(), 'kestrova-demo-'));
  try {
    const ready = await startService(state);
    console.log(`A meeting service is at ${ready.service}; Ada and Grace meet there for ${SECONDS} s.`);
    const live = process.stdout.isTTY;
    const table = drawTable(process.stdout);
    const [ada] = CAST;
    const onSample = (person) => {
      if (live) table.draw(CAST);
      else if (person === ada) console.log(progressLine(CAST));
    };
    const stays = CAST.map((person) => join(person, ready, state, onSample));
    await within(MEETING_MS, Promise.all(stays), 'the meeting was not over');
    console.log('');
    if (interrupted) return interrupted;
    const [grace] = CAST.slice(1);
    const bothWays = [report(ada, grace), report(grace, ada)].every(Boolean);
    console.log(
      bothWays ? 'Picture and sound went both ways.' : 'Picture and sound did NOT go both ways.',
    );
    return bothWays ? 0 : 1;
  } finally {
    await endAll();
    fs.rmSync(state, { recursive: true, force: true });
  }
}

for (const [signal, code] of [
  ['SIGINT', 130],
  ['SIGTERM', 143],
]) {
  process.on(signal, () => {
    // The demo ends by itself once those that it waits for are gone.
    endMeeting(interrupted ? 'SIGKILL' : 'SIGTERM');
    interrupted = code;
  });
}

try {
  const code = await demo();
  process.exitCode = interrupted || code;
} catch (error) {
  console.error(`demo: ${error.message}`);
  process.exitCode = interrupted || 1;
}
