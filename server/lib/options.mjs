import * as os from 'node:os';
import * as path from 'node:path';
import { parseArgs } from 'node:util';
import { LEVELS } from './log.mjs';

export function defaultState(env = process.env) {
  const base = env.XDG_STATE_HOME || path.join(os.homedir(), '.local/state');
  return path.join(base, 'kestrova-service');
}

const MIB = 1024 * 1024;

// Each option is a flag and an environment variable: --ping-timeout, KESTROVA_SERVICE_PING_TIMEOUT.
const NUMBERS = {
  port: { fallback: 0, max: 65535, help: 'port on 127.0.0.1; 0 takes a free one' },
  workers: { fallback: 1, min: 1, max: 64, help: 'mediasoup workers' },
  'ping-interval': { fallback: 25000, min: 10, help: 'ms between pings of the server' },
  'ping-timeout': {
    fallback: 20000,
    min: 10,
    help: 'ms until an unanswered ping ends a connection',
  },
  grace: { fallback: 5000, help: 'ms a joined participant is kept after its connection dropped' },
  batch: { fallback: 5, help: 'ms over which notifications are collected into one batch' },
  'ack-timeout': { fallback: 10000, min: 1, help: 'ms a client has to acknowledge an event' },
  linger: { fallback: 1000, help: 'ms a client has to hang up itself after "close"' },
  'pubsub-batch': { fallback: 5, help: 'ms over which topic messages are collected into a batch' },
  'pubsub-ping-interval': {
    fallback: 25000,
    min: 10,
    help: 'ms between pings on the WebSocket for topics',
  },
  'pubsub-stored': { fallback: 20000, min: 1, help: 'stored messages of a topic; the oldest go' },
  'service-delay': {
    fallback: 500,
    max: 600_000,
    help: 'ms between the states of a service (recording and the like)',
  },
  'transcription-pace': {
    fallback: 2000,
    max: 600_000,
    help: 'ms between texts of a transcription; 0: none by itself',
  },
  'character-think': { fallback: 300, help: 'ms that a character thinks about what it is told' },
  'file-size': { fallback: 16 * MIB, min: 1, max: 256 * MIB, help: 'bytes of a file, at most' },
  'files-total': { fallback: 256 * MIB, min: 1, help: 'bytes of all files together, at most' },
};

const TEXTS = {
  state: { help: 'folder of the authority, the secret and the control key' },
  'ready-file': { help: 'file that gets the ready line' },
  'log-level': { help: LEVELS.join(', ') },
  'media-address': { help: 'where media is listened for (127.0.0.1)' },
  'announced-address': { help: 'where clients are told to send media (the media address)' },
};

const CHOICES = {
  'pubsub-url': {
    fallback: 'on',
    of: ['on', 'off'],
    help: 'whether who joins is told of the WebSocket for topics',
  },
};

const FLAGS = {
  'no-observability': { help: 'tell clients of no place for logs and traces' },
  'with-parent': { help: 'end when standard input closes' },
  help: { help: 'this text' },
};

const camel = (name) => name.replace(/-(.)/g, (_, letter) => letter.toUpperCase());

function number(name, text) {
  const { min = 0, max = 2 ** 31 - 1 } = NUMBERS[name];
  const value = Number(text);
  if (!/^\d+$/.test(text) || value < min || value > max) {
    throw new Error(`--${name} must be a whole number from ${min} to ${max}`);
  }
  return value;
}

function choice(name, text) {
  const { of } = CHOICES[name];
  if (!of.includes(text)) throw new Error(`--${name} is one of ${of.join(', ')}`);
  return text;
}

/** All options with their defaults; `given` overrides them. */
export function serviceOptions(given = {}) {
  const options = {
    state: defaultState(),
    readyFile: undefined,
    logLevel: 'info',
    mediaAddress: '127.0.0.1',
    announcedAddress: undefined,
    noObservability: false,
    withParent: false,
  };
  for (const [name, row] of Object.entries({ ...NUMBERS, ...CHOICES }))
    options[camel(name)] = row.fallback;
  return { ...options, ...given };
}

/** Options from the command line, which wins, and the environment. Throws what to tell the user. */
export function parseServiceOptions(args, env = process.env) {
  const known = {};
  for (const name of Object.keys({ ...NUMBERS, ...CHOICES, ...TEXTS }))
    known[name] = { type: 'string' };
  for (const name of Object.keys(FLAGS)) known[name] = { type: 'boolean' };
  const { values } = parseArgs({ args, options: known, strict: true });
  const given = {};
  for (const name of Object.keys(known)) {
    const value =
      values[name] ?? env[`KESTROVA_SERVICE_${name.replaceAll('-', '_').toUpperCase()}`];
    if (value === undefined) continue;
    if (name in NUMBERS) given[camel(name)] = number(name, value);
    else if (name in CHOICES) given[camel(name)] = choice(name, value);
    else if (name in FLAGS) given[camel(name)] = value === true || value === '1';
    else given[camel(name)] = value;
  }
  const options = serviceOptions(given);
  if (!LEVELS.includes(options.logLevel))
    throw new Error(`--log-level is one of ${LEVELS.join(', ')}`);
  return options;
}

export function usage() {
  const rows = Object.entries({ ...NUMBERS, ...CHOICES, ...TEXTS, ...FLAGS }).map(
    ([name, row]) =>
      `  --${name.padEnd(22)}${row.help}` +
      (row.fallback === undefined ? '' : ` (${row.fallback})`),
  );
  return ['usage: service [options]', ...rows, ''].join('\n');
}
