// What a topic server does at the least: takes each publish, collects for as long as the service
// does, and sends the same frame to everybody who has subscribed. It looks at field numbers only
// and makes no objects of messages. Arguments: a folder with server.key and server.pem. Prints its
// port; ends with its parent.
import * as fs from 'node:fs';
import { createServer } from 'node:https';
import { createRequire } from 'node:module';
import * as path from 'node:path';

const require = createRequire(new URL('../../server/package.json', import.meta.url));
const { WebSocketServer } = require('ws');

const COLLECT_MS = 5;
const MOST_IN_FRAME = 500;
const [SUBSCRIBE, PUBLISH] = [1, 3];
// The key of each field of a publish, as a field of the message that goes to subscribers.
const KEYS = new Map(Object.entries({ 2: 0x12, 3: 0x0a, 5: 0x1a, 6: 0x22, 7: 0x2a, 9: 0x3a }));

function varint(value) {
  const bytes = [];
  for (; value >= 0x80; value = Math.floor(value / 0x80)) bytes.push((value % 0x80) | 0x80);
  return Buffer.from([...bytes, value]);
}

function readVarint(bytes, from) {
  let value = 0;
  for (let at = from, scale = 1; ; at += 1, scale *= 0x80) {
    value += (bytes[at] & 0x7f) * scale;
    if (bytes[at] < 0x80) return [value, at + 1];
  }
}

const field = (key, bytes) => Buffer.concat([Buffer.from([key]), varint(bytes.length), bytes]);

/** The fields with a length by number; `whole` is one with its length before it. */
function fields(bytes, from) {
  const found = {};
  for (let at = from; at < bytes.length; ) {
    const [key, start] = readVarint(bytes, at);
    const [value, next] = readVarint(bytes, start);
    at = key % 8 === 2 ? next + value : next;
    if (key % 8 === 2)
      found[key >> 3] = { whole: bytes.subarray(start, at), bytes: bytes.subarray(next, at) };
  }
  return found;
}

const subscribers = new Set();
let collected = [];
let topic;
let sequence = 0;

function flush() {
  const all = collected;
  collected = [];
  for (let from = 0; from < all.length; from += MOST_IN_FRAME) {
    const entries = all.slice(from, from + MOST_IN_FRAME).map((entry) => field(0x12, entry));
    const frame = field(0x0a, Buffer.concat([field(0x0a, topic), ...entries]));
    for (const socket of subscribers) socket.send(frame);
  }
}

function publish(found) {
  topic = found[1].bytes;
  sequence += 1;
  const parts = [];
  for (const [number, { whole }] of Object.entries(found))
    if (KEYS.has(number)) parts.push(Buffer.from([KEYS.get(number)]), whole);
  parts.push(Buffer.from([0x48]), varint(sequence));
  collected.push(Buffer.concat(parts));
  if (collected.length === 1) setTimeout(flush, COLLECT_MS);
}

function acknowledge(socket, requestId) {
  socket.send(field(0x12, Buffer.concat([field(0x0a, requestId), Buffer.from([0x10, 1])])));
}

const folder = process.argv[2];
const read = (name) => fs.readFileSync(path.join(folder, name));
const server = createServer({ key: read('server.key'), cert: read('server.pem') });
new WebSocketServer({ server, perMessageDeflate: false }).on('connection', (socket) => {
  socket.on('close', () => subscribers.delete(socket));
  socket.on('message', (frame) => {
    const found = fields(frame, readVarint(frame, 1)[1]);
    const kind = frame[0] >> 3;
    if (kind === SUBSCRIBE) subscribers.add(socket);
    if (kind === PUBLISH) publish(found);
    acknowledge(socket, found[{ [SUBSCRIBE]: 6, [PUBLISH]: 10 }[kind] ?? 2].bytes);
  });
});
server.listen(0, '127.0.0.1', () => console.log(server.address().port));
const parent = process.ppid;
setInterval(() => process.ppid === parent || process.exit(0), 1000).unref();
