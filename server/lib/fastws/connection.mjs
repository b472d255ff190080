import { decodeClient, encodeServer } from './codec.mjs';
import { Flow } from './flow.mjs';
import { Operations } from './operations.mjs';

const NOT_BINARY = 1003;
const NOT_A_FRAME = 1007;
const GOING_AWAY = 1001;
// So many pings may be unanswered when the next is due.
const MOST_UNANSWERED = 2;

/** One WebSocket of a participant: its frames, pings and end. */
export class Connection {
  #timer = undefined;
  #pings = 0;
  #answered = 0;
  closed = false;

  /** `ended()` is called when it is over, whoever ended it. */
  constructor(socket, { stream, peer, room, pingMs, faults, log, ended }) {
    Object.assign(this, { socket, peer, room, pingMs, faults, log, ended });
    this.peerId = peer.id;
    this.flow = new Flow(socket, stream);
    this.operations = new Operations(this);
    const silence = faults.take('silencePubSub', { roomId: room.id, peerId: peer.id });
    if (silence) this.flow.silence(silence.frames, silence.ms);
    socket.on('message', (data, binary) => this.#receive(data, binary));
    socket.on('close', (code) => this.#gone(code));
    socket.on('error', (error) => log.debug('a pubsub socket failed', { error: error.message }));
    this.send({ welcome: { pingIntervalMs: pingMs } });
    this.#timer = setInterval(() => this.#ping(), pingMs);
  }

  send(envelope) {
    this.flow.write(encodeServer(envelope));
  }

  #receive(data, binary) {
    if (this.closed) return;
    if (!binary) return this.close(NOT_BINARY, 'frames are binary');
    let message;
    try {
      message = decodeClient(data);
    } catch {
      return this.close(NOT_A_FRAME, 'not a frame');
    }
    const { kind, body } = message;
    if (kind === 'pong') return this.#pong(Number(body.seq));
    this.operations.run(kind, body);
  }

  get unanswered() {
    return this.#pings - this.#answered;
  }

  #ping() {
    if (this.flow.silent) return;
    if (this.unanswered >= MOST_UNANSWERED) {
      this.log.info('a pubsub client is dead', { roomId: this.room.id, peerId: this.peerId });
      return this.socket.terminate();
    }
    this.#pings += 1;
    this.send({ ping: { seq: this.#pings } });
  }

  #pong(seq) {
    if (seq > this.#answered && seq <= this.#pings) this.#answered = seq;
  }

  /** Ends it as the WebSocket protocol has it. */
  close(code = GOING_AWAY, reason = '') {
    this.#end();
    this.socket.close(code, reason);
  }

  terminate() {
    this.#end();
    this.socket.terminate();
  }

  #gone(code) {
    const { room, peerId } = this;
    this.log.info('pubsub disconnected', { roomId: room.id, peerId, code });
    this.#end();
  }

  #end() {
    if (this.closed) return;
    this.closed = true;
    clearInterval(this.#timer);
    this.operations.close();
    this.flow.close();
    this.ended();
  }
}
