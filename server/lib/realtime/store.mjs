import { RequestError } from '../refusal.mjs';

const MOST_KEYS = 1000;
const LONGEST_KEY = 1024;
const LONGEST_VALUE = 1024;

/**
 * Texts under keys, for a meeting. Who observes a key is told of every change until it leaves the
 * meeting, also over a connection that it comes back with.
 */
export class Store {
  #values = new Map();
  #observers = new Map();

  /** A text, or null to clear the key. */
  checkValue(value) {
    if (value === null) return;
    if (typeof value !== 'string') throw new RequestError(400, '"value" must be a text or null');
    if (Buffer.byteLength(value) > LONGEST_VALUE)
      throw new RequestError(413, `"value" has at most ${LONGEST_VALUE} bytes`);
  }

  checkKey(key) {
    if (typeof key !== 'string' || key === '' || key.length > LONGEST_KEY)
      throw new RequestError(400, `"key" must be a text of 1 to ${LONGEST_KEY} characters`);
  }

  set(key, value) {
    this.checkKey(key);
    if (value === null) return void this.#values.delete(key);
    if (!this.#values.has(key) && this.#values.size >= MOST_KEYS)
      throw new RequestError(507, `the store holds at most ${MOST_KEYS} keys`);
    this.#values.set(key, value);
  }

  get(key) {
    this.checkKey(key);
    return this.#values.get(key) ?? null;
  }

  observe(key, peer) {
    this.checkKey(key);
    const peers = this.#observers.get(key) ?? new Set();
    if (peers.has(peer)) return;
    const observed = [...this.#observers.values()].filter((others) => others.has(peer)).length;
    if (observed >= MOST_KEYS)
      throw new RequestError(507, `a participant observes at most ${MOST_KEYS} keys`);
    this.#observers.set(key, peers.add(peer));
  }

  stopObserving(key, peer) {
    this.checkKey(key);
    const peers = this.#observers.get(key);
    peers?.delete(peer);
    if (peers?.size === 0) this.#observers.delete(key);
  }

  /** Tells the observers, the one who changed it too. */
  announce(key, value, updatedBy) {
    for (const peer of this.#observers.get(key) ?? [])
      peer.notify('realtimeStoreValueChanged', { key, value, updatedBy });
  }

  forget(peer) {
    for (const key of [...this.#observers.keys()]) this.stopObserving(key, peer);
  }

  dump() {
    const observers = [...this.#observers].map(([key, peers]) => [
      key,
      [...peers].map((p) => p.id),
    ]);
    return { values: Object.fromEntries(this.#values), observers: Object.fromEntries(observers) };
  }
}
