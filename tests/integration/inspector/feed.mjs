import { once } from 'node:events';
import * as fs from 'node:fs';
import { createServer } from 'node:http';
import * as path from 'node:path';
import { fileURLToPath } from 'node:url';
import { meeting } from './meeting.mjs';

export const PAGE = path.join(import.meta.dirname, '../../../kestrova/inspector/page.html');
const KEY = '/key/';
const RETRY_MS = 50;

// How each message changes what a page that comes later is told.
const CHANGES = {
  meeting: (all, data) => (all.meeting = data),
  participant(all, data) {
    const known = all.participants.find(({ id }) => id === data.id);
    if (known) Object.assign(known, data);
    else all.participants.push({ ...data, streams: [] });
  },
  stream(all, { participantId, stream }) {
    const { streams } = all.participants.find(({ id }) => id === participantId);
    const known = streams.find(({ id }) => id === stream.id);
    if (known) Object.assign(known, stream);
    else streams.push({ ...stream, samples: [] });
  },
  samples(all, { t, streams }) {
    const every = all.participants.flatMap((person) => person.streams);
    for (const { id, samples } of every) if (streams[id]) samples.push([t, ...streams[id]]);
  },
  mark: (all, data) => all.marks.push(data),
  span(all, data) {
    const at = all.spans.findIndex(({ id }) => id === data.id);
    if (at < 0) all.spans.push(data);
    else all.spans[at] = data;
  },
  event: (all, data) => all.events.push(data),
};

/** Serves the page, and to whoever reads its stream what is sent. */
export class Feed {
  all = { meeting: {}, participants: [], marks: [], spans: [], events: [] };
  requests = [];
  #streams = new Set();
  #refuse = null;

  /** `now` is its clock, which may not be the page's. */
  static async open({ now = Date.now } = {}) {
    const feed = new Feed();
    feed.now = now;
    feed.web = createServer((request, response) => feed.#answer(request, response));
    feed.web.listen(0, '127.0.0.1');
    await once(feed.web, 'listening');
    feed.url = `http://127.0.0.1:${feed.web.address().port}${KEY}`;
    return feed;
  }

  #answer(request, response) {
    this.requests.push(request.url);
    if (request.url === KEY) {
      response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' }).end(fs.readFileSync(PAGE));
    } else if (request.url !== `${KEY}events`) {
      response.writeHead(404).end();
    } else if (this.#refuse === 'reset') {
      request.socket.destroy();
    } else if (this.#refuse) {
      response.writeHead(this.#refuse).end();
    } else {
      response.writeHead(200, { 'content-type': 'text/event-stream', 'cache-control': 'no-store' });
      response.write(`retry: ${RETRY_MS}\n\n`);
      this.#streams.add(response);
      response.on('close', () => this.#streams.delete(response));
      this.#write(response, 'snapshot', this.snapshot());
    }
  }

  #write(response, name, data) {
    response.write(`event: ${name}\ndata: ${JSON.stringify(data)}\n\n`);
  }

  snapshot() {
    return { format: 'kestrova-inspector', version: 1, now: this.now(), ...this.all };
  }

  /** Tells pages, and remembers for those that come later. */
  send(name, data) {
    CHANGES[name]?.(this.all, structuredClone(data));
    for (const response of this.#streams) this.#write(response, name, data);
  }

  /** What is no message of a meeting. */
  sendRaw(text) {
    for (const response of this.#streams) response.write(text);
  }

  /** What came of a meeting that began at `begin`. */
  sendMeeting(begin) {
    for (const { t, name, data } of meeting(begin)) if (t <= this.now()) this.send(name, data);
  }

  /** As if it weren't there: `how` is 'reset' or a status. */
  down(how = 'reset') {
    this.#refuse = how;
    for (const response of this.#streams) response.destroy();
  }
  up() {
    this.#refuse = null;
  }

  async close() {
    this.web.closeAllConnections();
    await new Promise((resolve) => this.web.close(resolve));
  }
}

/** Plays the meeting, over and over, for somebody who works on the page. */
async function play() {
  const feed = await Feed.open();
  console.log(feed.url);
  for (;;) {
    for (const { t, name, data } of meeting(Date.now())) {
      await new Promise((resolve) => setTimeout(resolve, Math.max(0, t - Date.now())));
      feed.send(name, data);
    }
  }
}
if (process.argv[1] === fileURLToPath(import.meta.url)) await play();
