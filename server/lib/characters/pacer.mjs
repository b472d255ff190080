import { FRAME, RATE } from './tone.mjs';

const FRAME_MS = (1000 * FRAME) / RATE;

/**
 * One timer for all who speak, and none when nobody does. The clock paces them: after a late timer
 * everybody gets all the turns that are due.
 */
export class Pacer {
  #turns = new Map(); // what takes its turns -> the first that is its own
  #begin = 0;
  #next = 0;
  #timer = undefined;

  get running() {
    return this.#timer !== undefined;
  }

  /** Calls `take` every 20 ms from now on, until it is removed. */
  add(take) {
    if (this.#turns.size === 0) [this.#begin, this.#next] = [performance.now(), 0];
    const since = performance.now() - this.#begin;
    this.#turns.set(take, Math.max(this.#next, Math.ceil(since / FRAME_MS)));
    if (this.#timer === undefined) this.#arm();
  }

  remove(take) {
    this.#turns.delete(take);
    if (this.#turns.size > 0) return;
    clearTimeout(this.#timer);
    this.#timer = undefined;
  }

  #arm() {
    const wait = this.#begin + this.#next * FRAME_MS - performance.now();
    this.#timer = setTimeout(() => this.#tick(), Math.max(0, wait));
  }

  #tick() {
    this.#timer = undefined;
    const due = Math.floor((performance.now() - this.#begin) / FRAME_MS);
    for (; this.#next <= due && this.#turns.size > 0; this.#next += 1) {
      for (const [take, first] of this.#turns) if (first <= this.#next) take();
    }
    if (this.#turns.size > 0 && this.#timer === undefined) this.#arm();
  }
}

export const pacer = new Pacer();
