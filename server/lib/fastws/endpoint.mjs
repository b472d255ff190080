import { randomBytes } from 'node:crypto';
import { STATUS_CODES } from 'node:http';
import { WebSocketServer } from 'ws';
import { Connection } from './connection.mjs';

export const FASTWS_PATH = '/fastws';
// A message grows by its ids and numbers on its way, and clients take 16 MiB.
const LARGEST_FRAME = 16 * 1024 * 1024 - 64 * 1024;
const LEFT = 'the participant has left the meeting';

/** Answers an upgrade with an HTTP status instead. */
export function refuseUpgrade(socket, status) {
  socket.on('error', () => {});
  const reason = STATUS_CODES[status] ?? 'Refused';
  socket.end(`HTTP/1.1 ${status} ${reason}\r\nConnection: close\r\nContent-Length: 0\r\n\r\n`);
}

/**
 * The WebSockets that carry topic messages. A ticket in the URL, made when a participant joins,
 * tells whose connection it is; it is good for as long as that participant is in the meeting.
 */
export class Fastws {
  #peers = new Map();
  #tickets = new Map();
  #connections = new Map();
  #sockets = new WebSocketServer({
    noServer: true,
    perMessageDeflate: false,
    maxPayload: LARGEST_FRAME,
  });

  constructor({ pingMs, faults, log, address }) {
    Object.assign(this, { pingMs, faults, log, address });
  }

  /** Where `peer` connects; the same at each join of a stay. */
  admit(peer) {
    let ticket = this.#tickets.get(peer);
    if (!ticket) {
      ticket = randomBytes(24).toString('base64url');
      this.#tickets.set(peer, ticket);
      this.#peers.set(ticket, peer);
    }
    return `wss://${this.address()}${FASTWS_PATH}?ticket=${ticket}`;
  }

  /** Voids the ticket of one who is no longer in the meeting, and ends its connection. */
  expel(peer) {
    this.#peers.delete(this.#tickets.get(peer));
    this.#tickets.delete(peer);
    this.#connections.get(peer)?.close(undefined, LEFT);
  }

  connection(peer) {
    return this.#connections.get(peer);
  }

  connections() {
    return [...this.#connections.values()];
  }

  upgrade(request, socket, head) {
    const ticket = new URLSearchParams(request.url.split('?')[1]).get('ticket');
    const peer = this.#peers.get(ticket);
    const who = { roomId: peer?.room.id, peerId: peer?.id };
    const fault = peer && this.faults.take('refusePubSubConnections', who);
    if (!peer || fault) {
      const status = fault ? (fault.status ?? 503) : 401;
      this.log.info('a pubsub connection was refused', { ...who, status });
      return refuseUpgrade(socket, status);
    }
    this.#sockets.handleUpgrade(request, socket, head, (webSocket) =>
      this.#open(webSocket, socket, peer),
    );
  }

  // A second one comes from a client that has lost the first.
  #open(webSocket, stream, peer) {
    this.#connections.get(peer)?.terminate();
    const { room } = peer;
    const { pingMs, faults, log } = this;
    const ended = () => {
      if (this.#connections.get(peer) === connection) this.#connections.delete(peer);
    };
    const parts = { stream, peer, room, pingMs, faults, log, ended };
    const connection = new Connection(webSocket, parts);
    this.#connections.set(peer, connection);
    log.info('pubsub connected', { roomId: room.id, peerId: peer.id });
  }

  /** Ends all connections at once, the closing ones too. */
  terminate() {
    for (const connection of this.connections()) connection.terminate();
    for (const webSocket of this.#sockets.clients) webSocket.terminate();
  }
}
