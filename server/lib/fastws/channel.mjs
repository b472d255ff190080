import { Kept } from '../realtime/kept.mjs';
import { RequestError } from '../refusal.mjs';

const OVERFLOW = ['queue', 'drop'];
const QUEUE_BYTES = 64 * 1024 * 1024;
const DEFAULT_QUEUE = 10_000;
const WINDOW_MS = 1000;
const MOST_AT_ONCE = 100;

/** What a subscribe asks for, checked. */
export function subscription(asked) {
  const { requestId, oldMessageLimit, queueSize, newMessageLimit } = asked;
  const { realtimeOverflow: overflow } = asked;
  if (oldMessageLimit < -1) throw new RequestError(400, '"oldMessageLimit" must be -1 or more');
  if (!OVERFLOW.includes(overflow))
    throw new RequestError(400, `"realtimeOverflow" must be one of ${OVERFLOW.join(', ')}`);
  if (queueSize < 0) throw new RequestError(400, '"queueSize" must be 0 or more');
  if (newMessageLimit < 0) throw new RequestError(400, '"newMessageLimit" must be 0 or more');
  const bound = overflow === 'drop' ? 0 : queueSize || DEFAULT_QUEUE;
  return { requestId, oldMessageLimit, bound, perSecond: newMessageLimit || Infinity };
}

/**
 * A topic on one connection. Several subscriptions of the connection share it, and its limits are
 * those of the most generous one.
 */
export class Channel {
  #subscriptions = new Map();
  #waiting = undefined;
  #windowEnds = 0;
  #left = 0;
  dropped = 0;

  constructor(topic, connection) {
    Object.assign(this, { topic, connection, from: topic.next });
    topic.channels.add(this);
  }

  add(wanted) {
    this.#subscriptions.set(wanted.requestId, wanted);
    const all = this.subscriptions();
    this.bound = Math.max(...all.map(({ bound }) => bound));
    this.perSecond = Math.max(...all.map(({ perSecond }) => perSecond));
    this.#waiting ??= new Kept({ most: this.bound, mostBytes: QUEUE_BYTES });
    this.#waiting.most = this.bound;
  }

  subscriptions() {
    return [...this.#subscriptions.values()];
  }

  has(requestId) {
    return this.#subscriptions.has(requestId);
  }

  get waiting() {
    return this.#waiting.size;
  }

  /** Sends what of `frames` is for this connection, or keeps or drops it when that is slow. */
  deliver(frames) {
    const entries = this.#limited(this.#readable(frames));
    if (entries.length === 0) return;
    const { flow } = this.connection;
    if (!flow.congested && this.waiting === 0) {
      for (const frame of frames.of(entries)) flow.write(frame);
      return;
    }
    if (this.bound === 0) {
      this.dropped += entries.length;
      return;
    }
    for (const entry of entries) {
      const before = this.waiting;
      this.#waiting.add(entry);
      this.dropped += before + 1 - this.waiting;
    }
    flow.wait(this);
  }

  #readable(frames) {
    const { entries, open } = frames;
    if (open && entries[0].order >= this.from) return entries;
    const { peerId } = this.connection;
    const mine = entries.filter(
      ({ order, only }) => order >= this.from && (!only || only.has(peerId)),
    );
    return mine.length === entries.length ? entries : mine;
  }

  #limited(entries) {
    if (this.perSecond === Infinity) return entries;
    const now = performance.now();
    if (now >= this.#windowEnds) {
      this.#windowEnds = now + WINDOW_MS;
      this.#left = this.perSecond;
    }
    const passed = entries.slice(0, this.#left);
    this.#left -= passed.length;
    this.dropped += entries.length - passed.length;
    return passed;
  }

  /** Takes the oldest of what waits, as frames. */
  overdue() {
    const entries = [];
    while (entries.length < MOST_AT_ONCE && this.waiting > 0) entries.push(this.#waiting.shift());
    return this.topic.frames(entries).of(entries);
  }

  close() {
    this.topic.channels.delete(this);
    this.#waiting.clear();
  }
}
