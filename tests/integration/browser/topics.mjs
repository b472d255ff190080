import protobuf from 'protobufjs/light';

const { Field, Root, Type } = protobuf;

// The messages as this page understands them: [type, number] by name, in a schema of its own.
const message = (name, fields) =>
  Object.entries(fields).reduce(
    (type, [key, [kind, number, rule]]) => type.add(new Field(key, number, kind, rule)),
    new Type(name),
  );
const list = 'repeated';
const root = new Root().add(
  message('Subscribe', {
    ...{ topic: ['string', 1], peerId: ['string', 2], oldMessageLimit: ['int32', 3] },
    ...{ realtimeOverflow: ['string', 4], requestId: ['string', 6] },
  }),
);
root.add(
  message('Publish', {
    ...{ topic: ['string', 1], payload: ['bytes', 2], message: ['string', 3] },
    ...{ timestamp: ['string', 5], senderId: ['string', 6], senderName: ['string', 7] },
    ...{ persist: ['bool', 8], messageId: ['string', 9], requestId: ['string', 10] },
  }),
);
root.add(message('Count', { seq: ['uint64', 1] }));
root.add(message('Client', { subscribe: ['Subscribe', 1], publish: ['Publish', 3], pong: ['Count', 5] }));
root.add(message('Batch', { topic: ['string', 1], payloads: ['bytes', 2, list], batchType: ['string', 3] }));
root.add(message('Ack', { requestId: ['string', 1], ok: ['bool', 2], error: ['string', 3] }));
root.add(message('Server', { batch: ['Batch', 1], ack: ['Ack', 2], ping: ['Count', 4] }));
root.add(message('Message', { message: ['string', 1], payload: ['bytes', 2], senderId: ['string', 4] }));
const [Client, Server, Message] = ['Client', 'Server', 'Message'].map((name) => root.lookupType(name));

/** Talks to topics on its own. What it hears is in `heard`, as "sender: text {payload}". */
export class Topics {
  heard = [];
  #acks = new Map();
  #count = 0;

  constructor(url, peerId) {
    this.peerId = peerId;
    this.socket = new WebSocket(url);
    this.socket.binaryType = 'arraybuffer';
    this.socket.onmessage = ({ data }) => this.#take(Server.decode(new Uint8Array(data)));
    this.opened = new Promise((resolve, reject) => {
      this.socket.onopen = resolve;
      this.socket.onerror = () => reject(new Error('no connection for topics'));
    });
  }

  #take({ batch, ack, ping }) {
    if (ping) this.#send({ pong: ping });
    if (ack) this.#acks.get(ack.requestId)?.(ack);
    for (const entry of batch?.payloads ?? []) {
      const { message, payload, senderId } = Message.decode(entry);
      const old = batch.batchType === 'old-messages' ? 'old ' : '';
      this.heard.push(`${old}${senderId}: ${message} ${new TextDecoder().decode(payload)}`.trim());
    }
  }

  #send(kind) {
    this.socket.send(Client.encode(Client.create(kind)).finish());
  }

  async #ask(kind, fields) {
    await this.opened;
    const requestId = `page-${++this.#count}`;
    const answered = new Promise((resolve) => this.#acks.set(requestId, resolve));
    this.#send({ [kind]: { ...fields, requestId } });
    const { ok, error } = await answered;
    if (!ok) throw new Error(error);
  }

  subscribe(topic) {
    const { peerId } = this;
    return this.#ask('subscribe', { topic, peerId, oldMessageLimit: -1, realtimeOverflow: 'queue' });
  }

  publish(topic, message, payload) {
    const sender = { senderId: this.peerId, senderName: this.peerId, messageId: `id-${this.#count}` };
    return this.#ask('publish', {
      ...{ topic, message, ...sender, timestamp: new Date().toISOString(), persist: true },
      payload: new TextEncoder().encode(JSON.stringify(payload)),
    });
  }
}
