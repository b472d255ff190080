import { randomUUID } from 'node:crypto';
import { EventEmitter } from 'node:events';
import { Characters } from './characters/characters.mjs';
import { Peer } from './peer.mjs';
import { streamKind } from './peer-media.mjs';
import { Store } from './realtime/store.mjs';
import { Topics } from './realtime/topics.mjs';
import { Refusal } from './refusal.mjs';
import { RoomMedia, VIDEO_CODECS } from './room-media.mjs';
import { MeetingServices } from './services/meeting-services.mjs';

export const LEFT = {
  dropped: 1001,
  removed: 1002,
  relayStopped: 1004,
  switched: 1005,
  roomClosed: 1006,
  unknown: 1007,
  duplicate: 1011,
  manual: 1101,
};

export class Room {
  peers = new Map();
  entryRequests = new Map();
  sessionId = randomUUID();
  store = new Store();
  closed = false;
  // For relays: "joined" (peer), "left" (peer, code), "published" (peer, producer), "mode" (peer,
  // mode), "lost" when its worker is, "ended".
  events = new EventEmitter().setMaxListeners(0);
  // The relays by the other meeting's id, and whom they show here by the id that it has here.
  relays = { sent: new Map(), received: new Map(), guests: new Map() };
  #media = undefined;

  constructor(id, { workers, settings, faults, onEmpty, onLeft }) {
    Object.assign(this, { id, workers, settings, faults, onEmpty, onLeft });
    this.topics = new Topics(settings.topics);
    this.services = new MeetingServices(this);
    this.characters = new Characters(this);
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
    media.onLost(() => {
      this.events.emit('lost');
      this.close(LEFT.unknown);
    });
    if (this.closed) media.close();
    return media;
  }

  joined(except) {
    return [...this.peers.values()].filter((peer) => peer.joined && peer !== except);
  }

  /** Whether somebody has this id already. */
  isTaken(id) {
    return this.peers.has(id) || this.characters.has(id) || this.relays.guests.has(id);
  }

  // Everybody whose streams are offered here.
  #owners(except) {
    const { guests } = this.relays;
    return [...this.joined(except), ...this.characters.voices(), ...guests.values()];
  }

  broadcast(method, data, except) {
    for (const peer of this.joined(except)) peer.notify(method, data);
  }

  /** A new connection of `peerId`: a second device, a return after a drop, or somebody new. */
  connect(socket, peerId, identity) {
    if (this.peers.get(peerId)?.socket) this.#sendAway(peerId);
    const peer = this.peers.get(peerId) ?? new Peer(this, peerId, this.settings);
    this.peers.set(peerId, peer);
    this.relays.guests.get(peerId)?.giveWay();
    peer.attach(socket, identity);
    return peer;
  }

  #sendAway(peerId) {
    const known = this.peers.get(peerId);
    if (!known) return;
    known.notify('error', { code: new Refusal('duplicate').code });
    this.remove(known, LEFT.duplicate, { told: true, keepRoom: true });
  }

  /**
   * Takes `peer` over from the meeting where it is, with its connection, transports and producers.
   * Its client hears of it and then joins here.
   */
  take(peer, { mode, moderator, secret }) {
    const from = peer.room;
    if (from !== this) {
      this.#sendAway(peer.id);
      from.#release(peer);
      peer.move(this, { mode, moderator, secret });
      this.peers.set(peer.id, peer);
      this.relays.guests.get(peer.id)?.giveWay();
      peer.asks?.forget(peer);
    }
    const { sessionId, id: switchingRoomId } = this;
    const answer = { id: peer.id, decision: 'allowed', sessionId, switchingRoomId };
    peer.notify('entryResponded', answer);
  }

  #release(peer) {
    this.peers.delete(peer.id);
    this.entryRequests.delete(peer.id);
    this.#forgetData(peer);
    for (const other of this.joined(peer)) {
      other.media.dropConsumersOf(peer.id);
      if (!peer.announced) continue;
      other.notify('peerClosed', { peerId: peer.id, reason: { code: LEFT.switched } });
    }
    peer.media.closeConsumers();
    for (const producer of peer.media.producers.values()) this.ignore(producer);
    if (peer.announced) this.events.emit('left', peer, LEFT.switched);
    this.#endIfEmpty(LEFT.switched);
  }

  // What it subscribed to and observes here, and the connection for it, ends with its stay.
  #forgetData(peer) {
    this.onLeft(peer);
    this.topics.forget(peer);
    this.store.forget(peer);
  }

  /** Listens no more to what a participant says who is not here any longer. */
  async ignore(producer) {
    if (producer.kind !== 'audio') return;
    try {
      await (await this.#media)?.ignore(producer);
    } catch {
      // The producer or the observer has ended by itself.
    }
  }

  #endIfEmpty(code) {
    if (this.peers.size === 0 && this.entryRequests.size === 0) this.close(code);
  }

  /** Changes the mode; what the new one doesn't send or receive ends here. */
  changeMode(peer, mode) {
    peer.setMode(mode);
    this.broadcast('peerModeChanged', { peerId: peer.id, mode });
    this.events.emit('mode', peer, mode);
  }

  /** A connection ended. One that only dropped keeps its participant for the grace time. */
  disconnected(peer, socket, deliberate) {
    if (this.closed || peer.socket !== socket) return;
    peer.socket = undefined;
    this.entryRequests.delete(peer.id);
    peer.asks?.forget(peer);
    const { grace, away = 0 } = this.settings;
    const known = peer.announced && !deliberate && peer.leaveCode === undefined;
    if (!known || grace + away === 0) return this.remove(peer, peer.leaveCode ?? LEFT.dropped);
    peer.graceTimer = setTimeout(() => this.remove(peer, LEFT.dropped), grace + away);
  }

  /** Takes a participant out. `told`: with a "close" event to it. */
  remove(peer, code, { told = false, keepRoom = false } = {}) {
    if (this.peers.get(peer.id) !== peer) return;
    clearTimeout(peer.graceTimer);
    this.peers.delete(peer.id);
    this.entryRequests.delete(peer.id);
    this.#forgetData(peer);
    peer.asks?.forget(peer);
    peer.joined = false;
    if (told) peer.dismiss(code);
    peer.media?.close();
    if (peer.announced) {
      this.broadcast('peerClosed', { peerId: peer.id, reason: { code } });
      this.events.emit('left', peer, code);
    }
    if (!keepRoom) this.#endIfEmpty(code);
  }

  close(code) {
    if (this.closed) return;
    for (const peer of this.peers.values()) peer.dismiss(code);
    this.end();
  }

  /** The end without a word to the participants. */
  end() {
    this.closed = true;
    this.services.end();
    this.onEmpty(this);
    for (const peer of this.peers.values()) {
      clearTimeout(peer.graceTimer);
      this.#forgetData(peer);
      peer.media?.close();
    }
    this.peers.clear();
    this.characters.close();
    this.topics.close();
    this.events.emit('ended');
    this.#media?.then(
      (media) => media.close(),
      () => {},
    );
  }

  /**
   * Asks the moderators; a moderator who joins later is asked then. `move` is how one who is in
   * another meeting comes over when it is allowed.
   */
  askEntry(peer, name, move) {
    this.entryRequests.set(peer.id, { peer, name, move });
    if (move) peer.asks = this;
    for (const host of this.joined()) {
      if (host.moderator) host.notify('entryRequested', { id: peer.id, name });
    }
  }

  forget(peer) {
    peer.asks = undefined;
    if (this.entryRequests.get(peer.id)?.peer === peer) this.entryRequests.delete(peer.id);
    this.#endIfEmpty(LEFT.unknown);
  }

  answerEntry(host, peerId, decision) {
    const asked = this.entryRequests.get(peerId);
    if (!asked) return false;
    this.entryRequests.delete(peerId);
    const { peer, move } = asked;
    const answer = { id: peerId, decision, sessionId: this.sessionId };
    peer.asks = undefined;
    if (move && decision === 'allowed') {
      this.take(peer, move);
    } else {
      if (!move) peer.entry = decision;
      peer.notify('entryResponded', answer);
    }
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

  /** One who receives from now on: the others hear what it cannot decode, it gets what there is. */
  async receive(peer) {
    if (!peer.media.receives) return;
    for (const codec of VIDEO_CODECS) {
      if (decodes(peer, codec)) continue;
      this.broadcast(...unsupported(peer, codec), peer);
      for (const guest of this.relays.guests.values()) guest.notify(...unsupported(peer, codec));
    }
    for (const owner of this.#owners(peer)) {
      for (const producer of owner.media.producers.values())
        await peer.media.consume(producer, owner.media);
    }
  }

  /** What a participant who came over from another meeting has been publishing already. */
  async publishAll(owner) {
    for (const producer of owner.media.producers.values()) await this.publish(owner, producer);
  }

  /** Offers a producer of the participant `owner` to everybody else. */
  async publish(owner, producer) {
    const state = { peerId: owner.id, kind: streamKind(producer), newState: true };
    this.broadcast('participantMediaStateChanged', state, owner);
    this.events.emit('published', owner, producer);
    await this.offer(owner, producer);
  }

  /** Offers a producer of `owner`, who need not be a participant, to all but itself. */
  async offer(owner, producer) {
    if (producer.kind === 'audio') {
      const media = await this.media();
      await owner.media.reach(producer, media.router);
      if (!owner.media.producers.has(producer.id)) return;
      await media.listen(producer, owner.id);
    }
    await Promise.all(this.joined(owner).map((peer) => this.#offer(peer, producer, owner)));
  }

  async #offer(peer, producer, owner) {
    if ((await peer.media.consume(producer, owner.media)) || producer.kind !== 'video') return;
    owner.notify(...unsupported(peer, producer.rtpParameters.codecs[0].mimeType));
  }
}

const unsupported = (peer, codec) => [
  'unsupportedCodecAdded',
  { consumerPeerId: peer.id, kind: 'video', codec },
];

function decodes(peer, codec) {
  const { codecs } = peer.media.rtpCapabilities ?? {};
  return (
    Array.isArray(codecs) &&
    codecs.some(
      (c) => typeof c?.mimeType === 'string' && c.mimeType.toLowerCase() === codec.toLowerCase(),
    )
  );
}
