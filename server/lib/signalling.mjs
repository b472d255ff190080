import { Server } from 'socket.io';
import { SOCKET_PREFIX } from './config.mjs';
import { drop } from './drop.mjs';
import { MODES } from './read.mjs';
import { Refusal } from './refusal.mjs';
import { runRequest } from './requests.mjs';
import { checkAccess } from './tokens.mjs';

export const SIGNALLING_PATH = `${SOCKET_PREFIX}/socket.io`;
const LARGEST_MESSAGE = 2 * 1024 * 1024;
const MOST_WAITING = 200;

function identify(socket, secret) {
  const { roomId, peerId, secret: token, mode } = socket.handshake.query;
  const claims = checkAccess(secret, token, { roomId, peerId: peerId ?? '' });
  if (!MODES.includes(mode)) throw new Refusal('request', 'the mode is unknown');
  return { roomId, peerId, mode, claims, secret: token };
}

/** Requests of one connection, one after the other in the order in which they came. */
class Connection {
  #last = Promise.resolve();
  #waiting = 0;

  constructor(socket, peer, service) {
    Object.assign(this, { socket, peer, service });
  }

  request(args) {
    const ack = typeof args.at(-1) === 'function' ? args.pop() : () => {};
    if (this.#waiting >= MOST_WAITING) {
      return ack({ data: { status: 'error', errorCode: 429, message: 'too many requests wait' } });
    }
    this.#waiting += 1;
    this.#last = this.#last
      .then(() => this.#serve(args[0], ack))
      .catch((error) => this.service.log.error('a request failed', { error: error.stack }))
      .finally(() => {
        this.#waiting -= 1;
      });
  }

  async #serve(envelope, ack) {
    const { peer, service } = this;
    const { room } = peer;
    if (peer.socket !== this.socket) {
      return ack({
        data: { status: 'error', errorCode: 409, message: 'this connection has ended' },
      });
    }
    const method = typeof envelope?.method === 'string' ? envelope.method : '';
    const direction = peer.media.directionOf(envelope?.data);
    const event = { roomId: room.id, peerId: peer.id, method, direction };
    const wrong = service.faults.take('answerWrong', event);
    const { answer, afters } =
      wrong && !wrong.alsoRun
        ? { answer: undefined, afters: [] }
        : await runRequest(envelope, { room, peer, service });
    service.log.debug('request', {
      ...event,
      method: method.slice(0, 100),
      status: answer?.data.status,
    });
    this.#acknowledge(event, ack, wrong ? wrong.answer : answer);
    // Not awaited: what follows an answer may wait for the client's own acknowledgements.
    for (const fn of afters) this.#later(fn);
  }

  #acknowledge(event, ack, answer) {
    const { faults } = this.service;
    const lost = faults.take('loseAnswer', event);
    if (lost && this.peer.socket === this.socket) return drop(this.peer, lost, faults);
    if (faults.take('swallowAck', event)) return;
    const slow = faults.take('delayAck', event);
    if (slow) setTimeout(() => ack(answer), slow.ms).unref();
    else ack(answer);
  }

  async #later(fn) {
    try {
      await fn();
    } catch (error) {
      this.service.log.warn('an event was not sent', {
        peerId: this.peer.id,
        error: error.message,
      });
    }
  }
}

/** The Socket.IO side: who may connect, and what a connection may ask. */
export function openSignalling(httpServer, service) {
  const { options, secret, faults, rooms, log } = service;
  const io = new Server(httpServer, {
    path: SIGNALLING_PATH,
    addTrailingSlash: false,
    destroyUpgrade: false, // other paths have WebSockets too
    transports: ['websocket'],
    serveClient: false,
    pingInterval: options.pingInterval,
    pingTimeout: options.pingTimeout,
    maxHttpBufferSize: LARGEST_MESSAGE,
    allowRequest: (request, decide) => {
      const query = new URLSearchParams(request.url.split('?')[1]);
      const refused = faults.take('refuseConnections', {
        roomId: query.get('roomId'),
        peerId: query.get('peerId'),
      });
      decide(refused ? 'refused by the control endpoint' : null, !refused);
    },
  });
  io.use((socket, next) => {
    try {
      socket.data.identity = identify(socket, secret);
      next();
    } catch (error) {
      log.info('a connection was refused', { reason: error.message });
      const refusal = new Error(error.message);
      refusal.data = { code: error.code, message: error.message };
      next(refusal);
    }
  });
  io.on('connection', (socket) => {
    const { roomId, peerId, ...identity } = socket.data.identity;
    const peer = rooms.open(roomId).connect(socket, peerId, identity);
    const connection = new Connection(socket, peer, service);
    log.info('connected', { roomId, peerId });
    socket.on('request', (...args) => connection.request(args));
    socket.setMaxListeners(0); // each event that waits for its acknowledgement listens
    socket.on('disconnect', (reason) => {
      log.info('disconnected', { roomId, peerId, reason });
      peer.room.disconnected(peer, socket, reason === 'client namespace disconnect');
    });
    socket.emit('connectionSuccess', {});
  });
  return io;
}
