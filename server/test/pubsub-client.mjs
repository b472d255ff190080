import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as path from 'node:path';
import protobuf from 'protobufjs';
import { WebSocket } from 'ws';
import { within } from './support.mjs';

const proto = path.join(import.meta.dirname, '../lib/fastws/fastws.proto');
const root = protobuf.loadSync(proto);
const [ClientMessage, Envelope, ServerMessage] = [
  'fastws.FastwsClientMessage',
  'fastws.FastwsServerEnvelope',
  'fastws.FastwsServerMessage',
].map((name) => root.lookupType(name));

const PLAIN = { longs: Number, bytes: Buffer, defaults: true };
const plain = (type, bytes) => type.toObject(type.decode(bytes), PLAIN);

/** Why the WebSocket at `url` is not opened: the HTTP status. */
export async function refusal(ca, url) {
  const socket = new WebSocket(url, { ca });
  socket.on('error', () => {});
  const [, response] = await once(socket, 'unexpected-response');
  socket.terminate();
  return response.statusCode;
}

/** The topic WebSocket of a participant; every frame that came is in `frames`, decoded. */
export class PubSubClient {
  frames = [];
  answerPings = true;
  #requests = 0;
  #waiters = new Set();
  #closing = undefined;

  constructor(service, url, peerId) {
    Object.assign(this, { url, peerId });
    this.socket = new WebSocket(url, { ca: service.ca, perMessageDeflate: false });
    this.socket.on('message', (data) => this.#receive(data));
    this.socket.on('error', () => {});
    this.#closing = once(this.socket, 'close').then(([code]) => code);
  }

  /** The code with which it ends. */
  get closed() {
    return within(`the end of ${this.peerId}'s socket`, (resolve) => this.#closing.then(resolve));
  }

  /** Joined by `client` and open, the welcome received. */
  static async of(client, joining) {
    const { pubSubUrl } = await client.join(joining);
    return PubSubClient.at(client.helper, pubSubUrl, client.peerId);
  }

  static async at(service, url, peerId) {
    const pubsub = new PubSubClient(service, url, peerId);
    service.onClose(() => pubsub.socket.terminate());
    await pubsub.next(({ welcome }) => welcome);
    return pubsub;
  }

  #receive(data) {
    const frame = plain(Envelope, data);
    if (frame.batch) {
      const { payloads } = frame.batch;
      frame.batch.messages = payloads.map((bytes) => plain(ServerMessage, bytes));
    }
    if (frame.ping && this.answerPings) this.send({ pong: { seq: frame.ping.seq } });
    this.frames.push(frame);
    this.#look();
  }

  #look() {
    for (const look of [...this.#waiters]) look();
  }

  send(message) {
    this.socket.send(ClientMessage.encode(message).finish());
  }

  /** The next frame that fits, taken out of the list. */
  next(fits) {
    return within(`a frame for ${this.peerId}`, (resolve) => {
      const look = () => {
        const index = this.frames.findIndex(fits);
        if (index < 0) return;
        this.#waiters.delete(look);
        resolve(this.frames.splice(index, 1)[0]);
      };
      this.#waiters.add(look);
      look();
    });
  }

  /** Sends a request and gives its acknowledgement. */
  async ask(op, body) {
    const requestId = body.requestId ?? `${this.peerId}-${(this.#requests += 1)}`;
    this.send({ [op]: { ...body, requestId } });
    return (await this.next(({ ack }) => ack?.requestId === requestId)).ack;
  }

  async ok(op, body) {
    const ack = await this.ask(op, body);
    assert.ok(ack.ok, `${op}: ${ack.error}`);
    return ack;
  }

  subscribe(topic, more = {}) {
    const options = { oldMessageLimit: 0, realtimeOverflow: 'queue' };
    return this.ok('subscribe', { topic, peerId: this.peerId, ...options, ...more });
  }

  publish(topic, message, more = {}) {
    return this.ok('publish', { topic, message, senderId: this.peerId, ...more });
  }

  /** The next `count` live messages of a topic, in the order in which they came. */
  async live(topic, count) {
    const messages = [];
    while (messages.length < count) {
      const { batch } = await this.next(
        ({ batch }) => batch?.topic === topic && batch.batchType === '',
      );
      messages.push(...batch.messages);
    }
    assert.equal(messages.length, count, `more than ${count} on ${topic}`);
    return messages;
  }

  /** The batches of a replay, up to its last. */
  async replay(requestId) {
    const batches = [];
    for (;;) {
      const { batch } = await this.next(({ batch }) => batch?.requestId === requestId);
      assert.equal(batch.batchType, 'old-messages');
      batches.push(batch);
      if (batch.isLast) return batches;
    }
  }
}

export const texts = (messages) => messages.map(({ message }) => message);
export const numbers = (messages) => messages.map(({ seqNum }) => seqNum);
