import { randomUUID } from 'node:crypto';
import { Peer } from './peer.mjs';
import { Refusal } from './refusal.mjs';
import { RoomMedia, VIDEO_CODECS } from './room-media.mjs';

export const LEFT = {
  dropped: 1001,
  removed: 1002,
  roomClosed: 1006,
  unknown: 1007,
  duplicate: 1011,
  manual: 1101,
};

export class Room {
  peers = new Map();
  entryRequests = new Map();
  sessionId = randomUUID();
  closed = false;
  #media = undefined;

  constructor(id, { workers, settings, faults, onEmpty }) {
    Object.assign(this, { id, workers, settings, faults, onEmpty });
  }

  /** The router, made when the first participant needs it. */
  async media() {
    this.#media ??= this.#openMedia().catch((error) => {
      this.#media = undefined;
      throw error;
    });
    return this.#media;
  }

  async #openMedia() {
    const worker = this.workers.next();
    const media = await RoomMedia.open(worker, (peerId) =>
      this.broadcast('activeSpeaker', { peerId }),
    );
    media.router.observer.once('close', () => this.close(LEFT.unknown));
    if (this.closed) media.close();
    return media;
  }

  joined(except) {
    return [...this.peers.values()].filter((peer) => peer.joined && peer !== except);
  }

  broadcast(method, data, except) {
    for (const peer of this.joined(except)) peer.notify(method, data);
  }

  /** A new connection of `peerId`: a second device, a return after a drop, or somebody new. */
  connect(socket, peerId, identity) {
    const known = this.peers.get(peerId);
    if (known?.socket) {
      known.notify('error', { code: new Refusal('duplicate').code });
      this.remove(known, LEFT.duplicate, { told: true, keepRoom: true });
    }
    const peer = this.peers.get(peerId) ?? new Peer(this, peerId, this.settings);
    this.peers.set(peerId, peer);
    peer.attach(socket, identity);
    return peer;
  }

  /** A connection ended. One that only dropped keeps its participant for the grace time. */
  disconnected(peer, socket, deliberate) {
    if (this.closed || peer.socket !== socket) return;
    peer.socket = undefined;
    this.entryRequests.delete(peer.id);
    if (
      !peer.announced ||
      deliberate ||
      peer.leaveCode !== undefined ||
      this.settings.grace === 0
    ) {
      return this.remove(peer, peer.leaveCode ?? LEFT.dropped);
    }
    peer.graceTimer = setTimeout(() => this.remove(peer, LEFT.dropped), this.settings.grace);
  }

  /** Takes a participant out. `told`: with a "close" event to it. */
  remove(peer, code, { told = false, keepRoom = false } = {}) {
    if (this.peers.get(peer.id) !== peer) return;
    clearTimeout(peer.graceTimer);
    this.peers.delete(peer.id);
    this.entryRequests.delete(peer.id);
    peer.joined = false;
    if (told) peer.dismiss(code);
    peer.media?.close();
    if (peer.announced) this.broadcast('peerClosed', { peerId: peer.id, reason: { code } });
    if (this.peers.size === 0 && !keepRoom) this.close(code);
  }

  close(code) {
    if (this.closed) return;
    for (const peer of this.peers.values()) peer.dismiss(code);
    this.end();
  }

  /** The end without a word to the participants. */
  end() {
    this.closed = true;
    this.onEmpty(this);
    for (const peer of this.peers.values()) clearTimeout(peer.graceTimer);
    this.peers.clear();
    this.#media?.then(
      (media) => media.close(),
      () => {},
    );
  }

  /** Asks the moderators; a moderator who joins later is asked then. */
  askEntry(peer, name) {
    this.entryRequests.set(peer.id, name);
    for (const host of this.joined()) {
      if (host.moderator) host.notify('entryRequested', { id: peer.id, name });
    }
  }

  answerEntry(host, peerId, decision) {
    const peer = this.peers.get(peerId);
    if (!this.entryRequests.delete(peerId) || !peer) return false;
    peer.entry = decision;
    const answer = { id: peerId, decision, sessionId: this.sessionId };
    peer.notify('entryResponded', answer);
    for (const other of this.joined(host)) {
      if (other.moderator) other.notify('entryResponded', answer);
    }
    return true;
  }

  /** Codecs of this room that a participant who receives cannot decode. */
  unsupportedCodecs() {
    const ordered = this.faults.unsupportedCodecs(this.id);
    if (ordered) return ordered;
    const receivers = this.joined().filter((peer) => peer.media.receives);
    return VIDEO_CODECS.filter((codec) => receivers.some((peer) => !decodes(peer, codec)));
  }

  /** Offers everything that is published to `peer`. */
  async offerAll(peer) {
    const { router } = await this.media();
    for (const other of this.joined(peer)) {
      for (const producer of other.media.producers.values())
        await this.#offer(router, peer, producer, other);
    }
  }

  /** Offers a new producer of `owner` to everybody else. */
  async publish(owner, producer) {
    const { router } = await this.media();
    await Promise.all(this.joined(owner).map((peer) => this.#offer(router, peer, producer, owner)));
  }

  async #offer(router, peer, producer, owner) {
    if ((await peer.media.consume(router, producer)) || producer.kind !== 'video') return;
    const codec = producer.rtpParameters.codecs[0].mimeType;
    owner.notify('unsupportedCodecAdded', { consumerPeerId: peer.id, kind: producer.kind, codec });
  }
}

function decodes(peer, codec) {
  const { codecs } = peer.media.rtpCapabilities ?? {};
  return (
    Array.isArray(codecs) &&
    codecs.some(
      (c) => typeof c?.mimeType === 'string' && c.mimeType.toLowerCase() === codec.toLowerCase(),
    )
  );
}
