import { randomUUID } from 'node:crypto';
import { pageUrls } from './pages.mjs';
import { checkMoment, SERVICES } from './table.mjs';

/**
 * One service of a meeting, of which only the states are there: they follow each other as a real
 * one's would, each after the time that tests set. `onStatus(service, failed)` hears of each.
 */
export class PlayedService {
  status = 'STOPPED';
  playable = false;
  // What the last start asked for, without what is secret; kept over the end.
  asked = null;
  ran = false;
  urls = {};
  #step = undefined;
  #timer = undefined;
  #ended = false;

  constructor(name, { room, onStatus }) {
    Object.assign(this, { name, room, onStatus, row: SERVICES[name] });
  }

  get text() {
    return `${this.row.prefix}_${this.playable ? 'PLAYABLE' : this.status}`;
  }

  /** Accepts a start, or throws a RequestError. What it gives is to run after the answer. */
  start(asked) {
    checkMoment(this, 'start');
    const run = randomUUID();
    const urls = pageUrls(this, run);
    Object.assign(this, { status: 'STARTING', asked, ran: true, run, urls });
    return () => this.#begin('STARTING', () => this.#started());
  }

  stop() {
    checkMoment(this, 'stop');
    this.#halt();
    Object.assign(this, { status: 'STOPPING', playable: false });
    return () => this.#begin('STOPPING', () => this.#stopped());
  }

  /** Fails now; `at` tells when in its life that is. */
  fail(at, code = this.row.failed[at]) {
    this.#halt();
    this.room.broadcast('error', { code });
    this.#enter('STOPPED', true);
  }

  // A service may have failed or ended between a request and what follows its answer.
  #begin(status, next) {
    if (this.#ended || this.status !== status) return;
    this.#enter(status);
    this.#after(next);
  }

  #started() {
    const failure = this.#ordered('start');
    if (failure) return this.fail('start', failure.errorCode);
    this.#enter('STARTED');
    if (this.row.playable) this.#after(() => this.#becomePlayable());
  }

  #becomePlayable() {
    this.playable = true;
    this.room.broadcast(...this.row.playable(this));
    this.#log();
  }

  #stopped() {
    const failure = this.#ordered('stop');
    if (failure) this.fail('stop', failure.errorCode);
    else this.#enter('STOPPED');
  }

  #ordered(at) {
    const { room, name: service } = this;
    return room.faults.take('failService', { roomId: room.id, service, at });
  }

  #enter(status, failed = false) {
    Object.assign(this, { status, playable: false });
    for (const event of this.row.events(this)) this.room.broadcast(...event);
    const plain = this.row.plain?.[status];
    if (plain) this.room.broadcast(plain, {});
    this.#log();
    this.onStatus(this, failed);
  }

  #log() {
    const { room, name: service, text: status } = this;
    room.settings.log.info('a service changed', { roomId: room.id, service, status });
  }

  #after(next) {
    if (this.#ended) return;
    this.#step = { next, since: performance.now() };
    this.retime();
  }

  /** The time between the states has changed: a step that is waited for is reckoned anew. */
  retime() {
    if (!this.#step) return;
    clearTimeout(this.#timer);
    const { next, since } = this.#step;
    const { id, settings } = this.room;
    const left = since + settings.tempo.delays.of(id, this.name) - performance.now();
    this.#timer = setTimeout(
      () => {
        this.#step = undefined;
        next();
      },
      Math.max(0, left),
    );
  }

  #halt() {
    clearTimeout(this.#timer);
    this.#step = undefined;
  }

  /** Tells one who has just joined, unless there never was anything to tell. */
  tell(peer) {
    if (this.ran) for (const event of this.row.events(this)) peer.notify(...event);
  }

  end() {
    this.#ended = true;
    this.#halt();
  }

  dump() {
    const { text: status, asked, urls } = this;
    return { status, asked, ...(this.status === 'STARTED' ? urls : {}) };
  }
}
