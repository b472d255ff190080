import { Kept } from '../realtime/kept.mjs';

const MIB = 1024 * 1024;
const MOST_MEETINGS = 1000;
const MOST_REQUESTS = 2000;
const MOST_BYTES = 64 * MIB;
const MOST_BYTES_IN_ALL = 256 * MIB;

const newMeeting = (most) => ({
  items: new Kept({ most, mostBytes: MOST_BYTES }),
  requests: [],
  totals: { requests: 0, bytes: 0, items: 0 },
});

/**
 * What came to a sink, by meeting: the newest of everything. Meetings are kept after their end,
 * when the last of it comes; the one that has been quiet the longest goes when there are too many.
 */
export class Reports {
  // meeting id, or undefined for what came without a good token -> { items, requests, totals }
  #meetings = new Map();
  #bytes = 0;

  constructor({ most }) {
    this.most = most;
  }

  /** A record of a request, which may change later; it is there for `roomId` from now on. */
  file(roomId, request) {
    const { requests, totals } = this.#open(roomId);
    requests.push(request);
    if (requests.length > MOST_REQUESTS) requests.shift();
    totals.requests += 1;
    totals.bytes += request.bytes;
  }

  /** Keeps items as JSON, which is what they are read as, and small. */
  keep(roomId, items) {
    const { items: kept, totals } = this.#open(roomId);
    const before = kept.bytes;
    for (const item of items) kept.add({ bytes: Buffer.from(JSON.stringify(item)) });
    totals.items += items.length;
    this.#bytes += kept.bytes - before;
    for (const oldest of this.#meetings.keys()) {
      if (this.#bytes <= MOST_BYTES_IN_ALL || oldest === roomId) break;
      this.forget(oldest);
    }
  }

  // Taken out and put back, so that the map is in the order of the last report.
  #open(roomId) {
    const meeting = this.#meetings.get(roomId) ?? newMeeting(this.most);
    this.#meetings.delete(roomId);
    this.#meetings.set(roomId, meeting);
    if (this.#meetings.size > MOST_MEETINGS) this.forget(this.#meetings.keys().next().value);
    return meeting;
  }

  forget(roomId) {
    this.#bytes -= this.#meetings.get(roomId)?.items.bytes ?? 0;
    this.#meetings.delete(roomId);
  }

  forgetAll() {
    this.#meetings.clear();
    this.#bytes = 0;
  }

  /** `{ items, requests, totals }` of a meeting; empty if nothing came. */
  read(roomId) {
    const { items, requests, totals } = this.#meetings.get(roomId) ?? newMeeting(this.most);
    return { items: items.list().map(({ bytes }) => JSON.parse(bytes)), requests, totals };
  }
}
