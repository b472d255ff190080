import { randomUUID } from 'node:crypto';
import { decodeMessage, encodeMessage } from '../fastws/codec.mjs';
import { LiveFrames } from '../fastws/frames.mjs';
import { RequestError } from '../refusal.mjs';
import { Kept } from './kept.mjs';

const MOST_TOPICS = 10_000;
const LONGEST_TOPIC = 1024;
const STORED_BYTES = 64 * 1024 * 1024;
// What is collected goes out early when there is this much of it.
const MOST_COLLECTED = 1000;
// Of stored messages in an answer over signalling.
const LARGEST_ANSWER = 512 * 1024;
const KEYS_OF_AN_ANSWER = 128;

function payloadOf(bytes) {
  if (bytes.length === 0) return {};
  try {
    const value = JSON.parse(Buffer.from(bytes).toString('utf8'));
    return typeof value === 'object' && value !== null && !Array.isArray(value) ? value : {};
  } catch {
    return {};
  }
}

/** A message as the signalling connection carries it. */
function signalled(topic, bytes) {
  const { messageId, message, senderId, senderName, timestamp, payload, sendOnly } =
    decodeMessage(bytes);
  const fields = { id: messageId, topic, message, senderId, senderName, timestamp };
  return { ...fields, payload: payloadOf(payload), sendOnly: [...sendOnly] };
}

/**
 * A topic of a meeting. Messages that everybody may read are numbered from 1; one for chosen
 * participants has no number, so that nobody takes it for one that was lost.
 *
 * `channels` are its subscribers on the WebSocket, `peers` those on the signalling connection.
 */
export class Topic {
  sequence = 0;
  channels = new Set();
  peers = new Set();
  #order = 0;
  #persisted = 0;
  #batches = 0;
  #collected = [];

  constructor(name, { stored, schedule }) {
    Object.assign(this, { name, schedule });
    this.stored = new Kept({ most: stored, mostBytes: STORED_BYTES });
  }

  /** The number that the next message in order will have. */
  get next() {
    return this.#order + 1;
  }

  publish({ sendOnly = [], persist = false, messageId, ...fields }) {
    const only = sendOnly.length > 0 ? new Set(sendOnly) : undefined;
    this.#order += 1;
    if (!only) this.sequence += 1;
    if (persist) this.#persisted += 1;
    const entry = { order: this.#order, only, sequence: only ? 0 : this.sequence };
    entry.messageId = messageId || randomUUID();
    entry.persisted = persist ? this.#persisted : 0;
    entry.bytes = encodeMessage({
      ...fields,
      sendOnly,
      messageId: entry.messageId,
      persistMsgId: persist ? `${this.#persisted}` : '',
      seqNum: entry.sequence,
    });
    if (persist) this.stored.add(entry);
    this.#collect(entry);
    this.#signal(entry);
    return entry;
  }

  #collect(entry) {
    if (this.channels.size === 0) return;
    this.#collected.push(entry);
    if (this.#collected.length >= MOST_COLLECTED) this.flush();
    else if (this.#collected.length === 1) this.schedule(this);
  }

  #signal({ only, bytes }) {
    if (this.peers.size === 0) return;
    const message = signalled(this.name, bytes);
    for (const peer of this.peers) {
      if (!only || only.has(peer.id)) peer.notify('pubsubMessage', message);
    }
  }

  /** Sends what was collected. */
  flush() {
    if (this.#collected.length === 0) return;
    const frames = this.frames(this.#collected);
    this.#collected = [];
    for (const channel of this.channels) channel.deliver(frames);
  }

  frames(entries) {
    return new LiveFrames(this.name, entries, () => (this.#batches += 1));
  }

  /** The stored messages that `peerId` may read: all (-1), or the newest `limit`; oldest first. */
  history(peerId, limit) {
    const list = this.stored.list().filter(({ only }) => !only || only.has(peerId));
    if (limit < 0) return list;
    return limit === 0 ? [] : list.slice(-limit);
  }

  /** The newest that fit into one answer: clients take 4 MiB, and JSON may be several times longer. */
  signalledHistory(peerId) {
    let room = LARGEST_ANSWER;
    const list = this.history(peerId, -1);
    const frills = Buffer.byteLength(this.name) + KEYS_OF_AN_ANSWER;
    const fitting = list.findLastIndex(({ bytes }) => (room -= bytes.length + frills) < 0);
    return list.slice(fitting + 1).map(({ bytes }) => signalled(this.name, bytes));
  }
}

/** The topics of a meeting. */
export class Topics {
  #topics = new Map();
  #waiting = new Set();
  #timer = undefined;

  constructor({ stored, batchMs }) {
    Object.assign(this, { stored, batchMs });
  }

  all() {
    return [...this.#topics.values()];
  }

  find(name) {
    return this.#topics.get(name);
  }

  open(name) {
    let topic = this.#topics.get(name);
    if (topic) return topic;
    if (name === '' || name.length > LONGEST_TOPIC)
      throw new RequestError(400, `"topic" must be a text of 1 to ${LONGEST_TOPIC} characters`);
    if (this.#topics.size >= MOST_TOPICS)
      throw new RequestError(507, `a meeting has at most ${MOST_TOPICS} topics`);
    topic = new Topic(name, { stored: this.stored, schedule: (one) => this.#schedule(one) });
    this.#topics.set(name, topic);
    return topic;
  }

  #schedule(topic) {
    this.#waiting.add(topic);
    this.#timer ??= setTimeout(() => this.#flush(), this.batchMs);
  }

  #flush() {
    this.#timer = undefined;
    const waiting = this.#waiting;
    this.#waiting = new Set();
    for (const topic of waiting) topic.flush();
  }

  /** Ends the subscriptions of `peer` on its signalling connection. */
  forget(peer) {
    for (const topic of this.#topics.values()) topic.peers.delete(peer);
  }

  close() {
    clearTimeout(this.#timer);
    this.#waiting.clear();
    this.#topics.clear();
  }
}
