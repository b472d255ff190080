// With more than this unsent, a connection counts as slow.
const HIGH_WATER = 1024 * 1024;

/**
 * What goes out on one socket. Frames of replays, and what waits in channels, follow as the reader
 * takes them; a live frame goes at once.
 */
export class Flow {
  #replays = [];
  #channels = new Set();
  #held = [];
  #timer = undefined;
  #gathering = false;
  #written = () => this.pump();
  // Ordered by a test: the reader counts as slow; nothing goes out.
  slow = false;
  silent = undefined;
  sent = 0;
  closed = false;

  /** `stream` is what the WebSocket `socket` runs on. */
  constructor(socket, stream) {
    Object.assign(this, { socket, stream });
  }

  get congested() {
    return this.slow || this.socket.bufferedAmount > HIGH_WATER;
  }

  write(frame) {
    if (this.closed) return;
    if (this.silent === 'held') return void this.#held.push(frame);
    if (this.silent) return;
    this.sent += 1;
    this.#gather();
    this.socket.send(frame, this.#written);
  }

  // Frames of one turn leave together, in one write instead of one for each acknowledgement.
  #gather() {
    if (this.#gathering) return;
    this.#gathering = true;
    this.stream.cork();
    setImmediate(() => {
      this.#gathering = false;
      this.stream.uncork();
    });
  }

  /** Sends the frames of a replay in turn; `replay` is { requestId, topic, frames, held }. */
  replay(replay) {
    this.#replays.push(replay);
    this.pump();
  }

  cancel(fits) {
    this.#replays = this.#replays.filter((replay) => !fits(replay));
  }

  get replays() {
    return this.#replays.length;
  }

  wait(channel) {
    this.#channels.add(channel);
  }

  forget(channel) {
    this.#channels.delete(channel);
  }

  pump() {
    while (!this.congested && [this.#overdue(), this.#next()].includes(true));
  }

  #next() {
    const replay = this.#replays.find(({ held }) => !held);
    if (!replay) return false;
    const { value, done } = replay.frames.next();
    if (done) this.#replays.splice(this.#replays.indexOf(replay), 1);
    else this.write(value);
    return true;
  }

  #overdue() {
    const [channel] = this.#channels;
    if (!channel) return false;
    for (const frame of channel.overdue()) this.write(frame);
    if (channel.waiting === 0) this.#channels.delete(channel);
    return true;
  }

  /** Sends nothing, for `ms` or until `resume`: frames are "lost", or "held" until then. */
  silence(frames, ms) {
    this.silent = frames;
    this.#until(ms);
  }

  /** Counts as slow, for `ms` or until `resume`. */
  slowDown(ms) {
    this.slow = true;
    this.#until(ms);
  }

  #until(ms) {
    clearTimeout(this.#timer);
    if (ms !== undefined) this.#timer = setTimeout(() => this.resume(), ms);
  }

  /** Ends what a test ordered. */
  resume() {
    clearTimeout(this.#timer);
    this.silent = undefined;
    this.slow = false;
    for (const frame of this.#held.splice(0)) this.write(frame);
    for (const replay of this.#replays) replay.held = false;
    this.pump();
  }

  close() {
    clearTimeout(this.#timer);
    this.closed = true;
    this.#replays = [];
    this.#channels.clear();
    this.#held = [];
  }
}
