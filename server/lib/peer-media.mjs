import { reach } from './pipes.mjs';
import { RequestError } from './refusal.mjs';

const PROTOCOLS = {
  UDP_OVER_TCP: ['udp', 'tcp'],
  UDP_ONLY: ['udp'],
  TCP_ONLY: ['tcp'],
};
export const PREFERRED_PROTOCOLS = Object.keys(PROTOCOLS);

// High enough that the loopback's first estimate already carries the top simulcast layer.
const FIRST_OUTGOING_BITRATE = 3_000_000;

/** "share" for a shared screen, else the kind of a producer or consumer. */
export const streamKind = ({ kind, appData }) =>
  kind === 'video' && appData.share === true ? 'share' : kind;

/**
 * Transports, producers and consumers of one connection of a participant; mediasoup's own default
 * prefers the highest layers. `notify(method, data)` tells the participant; `offer(data)` is a
 * promise of its acknowledgement of a new consumer.
 */
export class PeerMedia {
  #transports = new Map();
  #routers = new WeakMap();
  #taken = new Map(); // producer id -> the media that it was offered with
  // consumer id -> who holds it back: "offer" until it is acknowledged, "peer", "manager"
  #holds = new Map();
  producers = new Map();
  consumers = new Map();
  rtpCapabilities = undefined;
  closed = false;

  constructor({ peerId, notify, offer, listenAt, log }) {
    Object.assign(this, { peerId, notify, offer, listenAt, log });
  }

  get receives() {
    return this.#transports.has('receive');
  }

  transports() {
    return [...this.#transports].map(([direction, transport]) => ({ direction, transport }));
  }

  /** A second transport of a direction replaces the first, which its client has given up. */
  async createTransport(router, direction, preferredProtocol) {
    const protocols = PROTOCOLS[preferredProtocol];
    const transport = await router.createWebRtcTransport({
      listenInfos: protocols.map((protocol) => ({ protocol, ...this.listenAt })),
      enableUdp: protocols.includes('udp'),
      enableTcp: protocols.includes('tcp'),
      preferUdp: protocols.includes('udp'),
      initialAvailableOutgoingBitrate: FIRST_OUTGOING_BITRATE,
    });
    if (this.closed) {
      transport.close();
      throw new RequestError(409, 'the connection has ended');
    }
    this.closeTransport(direction);
    this.#transports.set(direction, transport);
    this.#routers.set(transport, router);
    transport.observer.once('close', () => {
      if (this.#transports.get(direction) === transport) this.#transports.delete(direction);
    });
    return transport;
  }

  transport(transportId) {
    const found = [...this.#transports.values()].find((transport) => transport.id === transportId);
    if (!found) throw new RequestError(404, 'no such transport');
    return found;
  }

  /** Which transport a request's data ask for or name, if any. */
  directionOf(data) {
    if (data?.producing === true) return 'send';
    if (data?.consuming === true) return 'receive';
    const named = this.transports().find(({ transport }) => transport.id === data?.transportId);
    return named?.direction;
  }

  routerOf(producer) {
    return this.#routers.get(producer);
  }

  reach(producer, router) {
    return reach(producer, this.routerOf(producer), router);
  }

  closeTransport(direction) {
    this.#transports.get(direction)?.close();
  }

  async produce(transportId, { kind, rtpParameters, appData }) {
    const transport = this.transport(transportId);
    if (transport !== this.#transports.get('send'))
      throw new RequestError(400, 'not the send transport');
    const producer = await transport.produce({
      kind,
      rtpParameters,
      appData: { ...appData, peerId: this.peerId },
    });
    this.#routers.set(producer, this.#routers.get(transport));
    this.producers.set(producer.id, producer);
    producer.observer.once('close', () => this.producers.delete(producer.id));
    return producer;
  }

  producer(producerId) {
    const producer = this.producers.get(producerId);
    if (!producer) throw new RequestError(404, 'no such producer');
    return producer;
  }

  consumer(consumerId) {
    const consumer = this.consumers.get(consumerId);
    if (!consumer) throw new RequestError(404, 'no such consumer');
    return consumer;
  }

  /**
   * Offers `producer` to the participant, as one of `owner`: the media of another participant, or
   * what stands for it. False when it cannot decode it.
   */
  async consume(producer, owner) {
    const transport = this.#transports.get('receive');
    const wanted = owner.producers.has(producer.id) && !this.#takes(producer, owner);
    if (!transport || !this.rtpCapabilities || !wanted) return true;
    const { rtpCapabilities } = this;
    const [from, to] = [owner.routerOf(producer), this.#routers.get(transport)];
    if (!from.canConsume({ producerId: producer.id, rtpCapabilities })) return false;
    this.#taken.set(producer.id, owner);
    try {
      await owner.reach(producer, to);
      const consumer = await transport.consume({
        producerId: producer.id,
        rtpCapabilities,
        paused: true,
        appData: { ...producer.appData, peerId: owner.peerId },
      });
      this.#watch(consumer, owner);
      if (owner.producers.has(producer.id)) this.#announce(consumer);
      else consumer.close(); // taken back while this was on its way
    } catch (error) {
      // The producer or the transport went away in the meantime.
      this.#giveUp(producer.id, owner);
      this.log.debug('a consumer was not made', { peerId: this.peerId, error: error.message });
    }
    return true;
  }

  #takes(producer, owner) {
    return this.#taken.get(producer.id) === owner;
  }

  #giveUp(producerId, owner) {
    if (this.#taken.get(producerId) === owner) this.#taken.delete(producerId);
  }

  #watch(consumer, owner) {
    const { id: consumerId } = consumer;
    this.consumers.set(consumerId, consumer);
    this.#holds.set(consumerId, new Set(['offer']));
    consumer.observer.once('close', () => {
      this.consumers.delete(consumerId);
      this.#holds.delete(consumerId);
      this.#giveUp(consumer.producerId, owner);
    });
    consumer.on('producerclose', () => this.notify('consumerClosed', { consumerId }));
    consumer.on('producerpause', () => this.notify('consumerPaused', { consumerId }));
    consumer.on('producerresume', () => this.notify('consumerResumed', { consumerId }));
    consumer.on('layerschange', (layers) => {
      if (!layers) return;
      const { spatialLayer, temporalLayer = 0 } = layers;
      this.notify('consumerLayersChanged', { consumerId, spatialLayer, temporalLayer });
    });
  }

  // Media flows only once the client says that it is ready for it.
  async #announce(consumer) {
    const { id, kind, producerId, rtpParameters, appData, type, producerPaused } = consumer;
    const data = {
      id,
      kind,
      producerId,
      rtpParameters,
      appData,
      peerId: appData.peerId,
      type,
      producerPaused,
    };
    try {
      await this.offer(data);
      await this.#release(consumer, 'offer');
    } catch (error) {
      if (consumer.closed) return;
      this.log.warn('a consumer stays paused: not acknowledged', {
        peerId: this.peerId,
        consumerId: id,
        error: error.message,
      });
    }
  }

  async #hold(consumer, by) {
    this.#holds.get(consumer.id)?.add(by);
    await consumer.pause();
  }

  async #release(consumer, ...by) {
    const holds = this.#holds.get(consumer.id);
    if (!holds) return;
    for (const holder of by) holds.delete(holder);
    if (holds.size === 0) await consumer.resume();
  }

  // The client pauses its own side on the event, so that goes out even if nothing changed here.
  async pauseConsumer(consumer) {
    await this.#hold(consumer, 'peer');
    this.notify('consumerPaused', { consumerId: consumer.id });
  }

  // One who asks for it is ready for it, acknowledged or not.
  async resumeConsumer(consumer) {
    await this.#release(consumer, 'peer', 'offer');
    this.notify('consumerResumed', { consumerId: consumer.id });
  }

  async pauseByManager(consumer, reason) {
    await this.#hold(consumer, 'manager');
    this.#tellManaged('consumerPausedSubManager', consumer, reason);
  }

  async resumeByManager(consumer, reason) {
    await this.#release(consumer, 'manager');
    this.#tellManaged('consumerResumedSubManager', consumer, reason);
  }

  managed() {
    return [...this.consumers.values()].filter(({ id }) => this.#holds.get(id).has('manager'));
  }

  #tellManaged(method, consumer, reason) {
    const { id: consumerId, appData } = consumer;
    this.notify(method, { peerId: appData.peerId, kind: streamKind(consumer), reason, consumerId });
  }

  /** Who holds a consumer back. */
  holders(consumer) {
    return [...(this.#holds.get(consumer.id) ?? [])];
  }

  /** Takes back what is consumed of `peerId` and `fits`, and goes without being closed. */
  dropConsumersOf(peerId, fits = () => true) {
    for (const consumer of [...this.consumers.values()]) {
      if (consumer.appData.peerId !== peerId || !fits(consumer)) continue;
      consumer.close();
      this.notify('consumerClosed', { consumerId: consumer.id });
    }
  }

  /** Ends what is consumed, without a word: the client of one who moves has closed its side. */
  closeConsumers() {
    for (const consumer of [...this.consumers.values()]) consumer.close();
  }

  close() {
    this.closed = true;
    for (const direction of ['send', 'receive']) this.closeTransport(direction);
  }
}
