import * as assert from 'node:assert/strict';
import { spawn } from 'node:child_process';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { createInterface } from 'node:readline';
import { after } from 'node:test';
import { inflateSync } from 'node:zlib';
import { openService, temporaryFolder } from '../../../server/test/support.mjs';

const program = process.env.KESTROVA_MEET;
const children = new Set();
process.on('exit', () => children.forEach((child) => child.kill('SIGKILL')));

/** A service and a folder for all tests of a file, which go after them. */
export async function openPlace(options) {
  const service = await openService(options);
  const folder = temporaryFolder();
  after(async () => {
    await service.close();
    fs.rmSync(folder, { recursive: true });
  });
  return { service, folder };
}

/** Starts a process that doesn't stay behind when a test fails. */
export function start(command, args, options) {
  const child = spawn(command, args, options);
  children.add(child);
  child.once('close', () => children.delete(child));
  return child;
}

/** The arguments and secrets with which somebody joins a meeting of `service`. */
export const joinAs = ({ ready, token }, meeting, name, claims) => ({
  args: ['--service', ready.service, '--meeting', meeting, '--name', name],
  env: { SSL_CERT_FILE: ready.ca, KESTROVA_TOKEN: token(claims) },
});

/** Joins with events as JSON lines. */
export function join(service, meeting, name, ...more) {
  const { args, env } = joinAs(service, meeting, name);
  return new Run([...args, '--json', ...more], env);
}

/** Joins to talk: a `Run` that takes lines. */
export const talk = (service, meeting, name, ...more) =>
  join(service, meeting, name, '--camera', 'none', '--mic', 'none', '--chat', ...more);

/** One run of kestrova-meet. `events` are the JSON lines that it wrote, in order. */
export class Run {
  events = [];
  stderr = '';
  #waiters = new Set();

  constructor(args, env = {}) {
    const inherited = { ...process.env };
    delete inherited.KESTROVA_TOKEN;
    this.child = start(program, args, {
      env: { ...inherited, ...env },
      stdio: [args.includes('--chat') ? 'pipe' : 'ignore', 'pipe', 'pipe'],
    });
    this.child.stdin?.on('error', () => {}); // it may have ended
    this.stdout = '';
    this.child.stdout.on('data', (data) => (this.stdout += data));
    this.child.stderr.on('data', (data) => (this.stderr += data));
    if (args.includes('--json')) {
      createInterface({ input: this.child.stdout }).on('line', (line) => {
        this.events.push(JSON.parse(line));
        for (const look of this.#waiters) look();
      });
    }
    this.ended = once(this.child, 'close').then(([code, signal]) => code ?? signal);
    this.ended.then(() => this.#waiters.forEach((look) => look()));
  }

  /** The first event of that name, now or later; fails if the program ends without it. */
  event(name, matches = () => true) {
    return new Promise((resolve, reject) => {
      const look = () => {
        const found = this.events.find((entry) => entry.event === name && matches(entry));
        const gone = this.child.exitCode !== null || this.child.signalCode !== null;
        if (!found && !gone) return;
        this.#waiters.delete(look);
        if (found) resolve(found);
        else reject(new Error(`ended without "${name}": ${this.stderr}`));
      };
      this.#waiters.add(look);
      look();
    });
  }

  say(...lines) {
    for (const line of lines) this.child.stdin.write(`${line}\n`);
  }

  /** What these events carry under `key`, in order. */
  all(name, key) {
    return this.events.filter(({ event }) => event === name).map((entry) => entry[key]);
  }

  /** Ends it by a signal; gives its exit code. */
  stop(signal) {
    this.child.kill(signal);
    return this.ended;
  }

  get summary() {
    return this.events.at(-1);
  }
}

/** Size and pixels of an 8-bit RGB PNG without interlace. */
export function readPng(file) {
  const bytes = fs.readFileSync(file);
  assert.equal(bytes.toString('latin1', 1, 4), 'PNG');
  const data = [];
  let width, height;
  for (let at = 8; at < bytes.length; ) {
    const length = bytes.readUInt32BE(at);
    const type = bytes.toString('latin1', at + 4, at + 8);
    const body = bytes.subarray(at + 8, at + 8 + length);
    if (type === 'IHDR') {
      [width, height] = [body.readUInt32BE(0), body.readUInt32BE(4)];
      assert.deepEqual([body[8], body[9], body[12]], [8, 2, 0]);
    }
    if (type === 'IDAT') data.push(body);
    at += length + 12;
  }
  return { width, height, pixels: unfilter(inflateSync(Buffer.concat(data)), width * 3, height) };
}

function unfilter(raw, stride, height) {
  const pixels = Buffer.alloc(stride * height);
  for (let y = 0; y < height; y++) {
    const filter = raw[y * (stride + 1)];
    for (let x = 0; x < stride; x++) {
      const left = x >= 3 ? pixels[y * stride + x - 3] : 0;
      const up = y > 0 ? pixels[(y - 1) * stride + x] : 0;
      const corner = x >= 3 && y > 0 ? pixels[(y - 1) * stride + x - 3] : 0;
      const guesses = [0, left, up, (left + up) >> 1, paeth(left, up, corner)];
      pixels[y * stride + x] = raw[y * (stride + 1) + 1 + x] + guesses[filter];
    }
  }
  return pixels;
}

function paeth(left, up, corner) {
  const guess = left + up - corner;
  const [a, b, c] = [left, up, corner].map((value) => Math.abs(guess - value));
  return a <= b && a <= c ? left : b <= c ? up : corner;
}
