import { encodeServer } from './codec.mjs';

// A frame is bounded so that one slow reader gets its turn between two of them.
const MOST_BYTES = 256 * 1024;
const MOST_LIVE = 500;
const MOST_OLD = 100;
const OLD_MESSAGES = 'old-messages';

/** Cuts `entries` into lists that each make a frame. */
function* parts(entries, most) {
  let from = 0;
  let size = 0;
  for (let at = 0; at < entries.length; at += 1) {
    const { length } = entries[at].bytes;
    if (at > from && (at - from >= most || size + length > MOST_BYTES)) {
      yield entries.slice(from, at);
      from = at;
      size = 0;
    }
    size += length;
  }
  if (from < entries.length) yield entries.slice(from);
}

function batch(topic, entries, more) {
  const numbers = entries.map(({ sequence }) => sequence).filter((sequence) => sequence > 0);
  return encodeServer({
    batch: {
      topic,
      payloads: entries.map(({ bytes }) => bytes),
      startSeq: numbers[0] ?? 0,
      endSeq: numbers.at(-1) ?? 0,
      ...more,
    },
  });
}

/**
 * The frames of what a topic has for its subscribers: whoever gets the same messages gets the same
 * bytes. `nextBatch()` numbers the frames.
 */
export class LiveFrames {
  #made = new Map();

  constructor(topic, entries, nextBatch) {
    Object.assign(this, { topic, entries, nextBatch });
    this.open = entries.every(({ only }) => !only);
  }

  of(entries) {
    const whole = entries === this.entries;
    const key = whole ? '' : entries.map(({ order }) => order).join();
    let frames = this.#made.get(key);
    if (!frames) {
      const make = (list) => batch(this.topic, list, { batchSeq: this.nextBatch() });
      frames = Array.from(parts(entries, MOST_LIVE), make);
      this.#made.set(key, frames);
    }
    return frames;
  }
}

/** The frames of a replay, made one by one; the last one says so, and there is always one. */
export function* replayFrames(topic, requestId, entries, { most = MOST_OLD, more = false } = {}) {
  const pieces = [...parts(entries, Math.min(most, MOST_OLD))];
  if (pieces.length === 0) pieces.push([]);
  for (const [index, piece] of pieces.entries()) {
    const isLast = !more && index === pieces.length - 1;
    yield batch(topic, piece, { batchType: OLD_MESSAGES, isLast, batchSeq: index + 1, requestId });
  }
}
