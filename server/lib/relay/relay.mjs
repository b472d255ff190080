import { Pipes } from '../pipes.mjs';
import { streamKind } from '../peer-media.mjs';
import { LEFT } from '../room.mjs';
import { Guest } from './guest.mjs';

export const RELAY_KINDS = ['audio', 'video', 'share'];
const ROOM_FOR_NUMBER = 120; // letters of an id that are left when a number follows

/**
 * The participants of meeting `from` and their streams, shown in meeting `to`: asked for, then
 * running, then ended. What is on another worker is piped from the moment of asking, since the
 * first picture takes a second through a new pipe.
 */
export class Relay {
  state = 'asked';
  guests = new Map(); // participant -> how it is shown
  #hidden = new WeakSet();
  #pipes = new Pipes();
  #listening = [];

  constructor({ from, to, asker, kinds, log }) {
    const { id, displayName } = asker;
    Object.assign(this, { from, to, asker: { id, displayName }, kinds: new Set(kinds), log });
    from.relays.sent.set(to.id, this);
    to.relays.received.set(from.id, this);
    this.#on(from, {
      joined: (peer) => {
        this.#join(peer);
        this.#welcome(peer, to);
      },
      left: (peer, code) => this.#leave(peer, code),
      published: (peer, producer) => this.#carry(peer, producer),
      mode: (peer, mode) => this.#changeMode(peer, mode),
      lost: () => this.fail('a media worker was lost'),
      ended: () => this.#ended(from),
    });
    this.#on(to, {
      joined: (peer) => {
        this.#request(peer);
        this.#welcome(peer, from);
      },
      lost: () => this.fail('a media worker was lost'),
      ended: () => this.#ended(to),
    });
  }

  #on({ events }, listeners) {
    for (const [event, listener] of Object.entries(listeners)) {
      events.on(event, listener);
      this.#listening.push(() => events.off(event, listener));
    }
  }

  get running() {
    return this.state === 'running';
  }

  /** Asks the moderators there; one who joins later is asked then. */
  ask() {
    for (const peer of this.to.joined()) this.#request(peer);
    this.#carryAll();
  }

  #request(peer) {
    if (this.state !== 'asked' || !peer.moderator) return;
    const { id: peerId, displayName } = this.asker;
    peer.notify('mediaRelayRequestReceived', { peerId, meetingId: this.from.id, displayName });
  }

  // One who comes, or comes back, while it runs.
  #welcome(peer, other) {
    if (this.running) peer.notify('mediaRealyStarted', { meetingId: other.id });
  }

  answer(decision, decidedBy) {
    if (this.state !== 'asked') return;
    const { from, to } = this;
    const response = { decision, decidedBy, meetingId: to.id };
    from.peers.get(this.asker.id)?.notify('mediaRelayRequestResponse', response);
    if (decision !== 'accepted') return this.#end();
    this.state = 'running';
    // The event is misspelt on the wire.
    this.#tell('mediaRealyStarted');
    for (const peer of from.peers.values()) if (peer.announced) this.#join(peer);
    this.#carryAll();
  }

  #tell(method, more) {
    const { from, to } = this;
    from.broadcast(method, { meetingId: to.id, ...more });
    to.broadcast(method, { meetingId: from.id, ...more });
  }

  #join(peer) {
    if (!this.running || this.guests.has(peer) || this.#hidden.has(peer)) return;
    const guest = new Guest({
      id: this.#idFor(peer),
      original: peer,
      pipes: this.#pipes,
      onHide: () => this.#hide(peer),
      onGiveWay: () => this.#rename(peer),
    });
    this.guests.set(peer, guest);
    this.to.relays.guests.set(guest.id, guest);
    this.to.broadcast('newPeer', guest.describe());
  }

  #idFor({ id }) {
    if (!this.to.isTaken(id)) return id;
    const short = [...id].slice(0, ROOM_FOR_NUMBER).join('');
    let number = 2;
    while (this.to.isTaken(`${short}-${number}`)) number += 1;
    return `${short}-${number}`;
  }

  #leave(peer, code) {
    for (const producer of peer.media?.producers.values() ?? []) this.#pipes.release(producer);
    this.#dismiss(peer, code);
  }

  #dismiss(peer, code) {
    const guest = this.guests.get(peer);
    if (!guest) return;
    const { to } = this;
    this.guests.delete(peer);
    to.relays.guests.delete(guest.id);
    for (const producer of guest.media.producers.values()) to.ignore(producer);
    guest.media.producers.clear();
    for (const other of to.joined()) other.media.dropConsumersOf(guest.id);
    to.broadcast('peerClosed', { peerId: guest.id, reason: { code } });
  }

  // A moderator there doesn't want to see it.
  #hide(peer) {
    this.#hidden.add(peer);
    this.#leave(peer, LEFT.removed);
  }

  // Somebody there is to have its id.
  #rename(peer) {
    this.#dismiss(peer, LEFT.unknown);
    this.#join(peer);
    this.#carryAllOf(peer);
  }

  #changeMode(peer, mode) {
    const guest = this.guests.get(peer);
    if (guest) this.to.broadcast('peerModeChanged', { peerId: guest.id, mode });
  }

  #carryAll() {
    for (const peer of this.from.peers.values()) if (peer.announced) this.#carryAllOf(peer);
  }

  #carryAllOf(peer) {
    for (const producer of peer.media.producers.values()) this.#carry(peer, producer);
  }

  #wants(peer, producer) {
    return (
      this.state !== 'ended' &&
      this.kinds.has(streamKind(producer)) &&
      !producer.closed &&
      peer.room === this.from &&
      !this.#hidden.has(peer)
    );
  }

  // Pipes it, and shows it if it is time for that. Never throws.
  async #carry(peer, producer) {
    if (!this.#wants(peer, producer)) return;
    const near = peer.media.routerOf(producer);
    try {
      const { router: far } = await this.to.media();
      if (!this.#wants(peer, producer)) return;
      await this.#pipes.reach(producer, near, far);
      if (this.#wants(peer, producer)) await this.#show(peer, producer, near);
      else this.#pipes.release(producer);
    } catch (error) {
      if (this.#wants(peer, producer)) this.fail(error.message);
    }
  }

  async #show(peer, producer, router) {
    const guest = this.guests.get(peer);
    if (!guest || guest.media.producers.has(producer.id)) return;
    guest.media.add(producer, router);
    producer.observer.once('close', () => this.#gone(guest, producer));
    this.#tellMedia(guest, producer, true);
    try {
      await this.to.offer(guest, producer);
    } catch (error) {
      if (guest.media.producers.has(producer.id)) throw error;
    }
  }

  #gone(guest, producer) {
    if (guest.media.producers.delete(producer.id)) this.#tellMedia(guest, producer, false);
  }

  #tellMedia({ id: peerId }, producer, newState) {
    const state = { peerId, kind: streamKind(producer), newState };
    this.to.broadcast('participantMediaStateChanged', state);
  }

  enable(kind) {
    this.kinds.add(kind);
    this.#carryAll();
  }

  disable(kind) {
    this.kinds.delete(kind);
    for (const guest of this.guests.values()) {
      for (const producer of [...guest.media.producers.values()]) {
        if (streamKind(producer) === kind) this.#withhold(guest, producer);
      }
    }
  }

  #withhold(guest, producer) {
    this.#gone(guest, producer);
    this.to.ignore(producer);
    for (const other of this.to.joined())
      other.media.dropConsumersOf(guest.id, (consumer) => consumer.producerId === producer.id);
    this.#pipes.release(producer);
  }

  /** Ends it, or takes the request back. */
  stop() {
    const { running } = this;
    this.#end();
    if (running) this.#tell('mediaRelayStopped');
  }

  /** It cannot go on. */
  fail(reason) {
    if (this.state === 'ended') return;
    this.log.warn('a media relay ends', { from: this.from.id, to: this.to.id, reason });
    this.#end();
    this.#tell('mediaRelayError', { reason });
  }

  // Nobody is left in that meeting; one who asks for what is gone hears that it cannot be.
  #ended(room) {
    if (room === this.to && !this.running) return this.fail('the meeting has ended');
    this.stop();
  }

  #end() {
    if (this.state === 'ended') return;
    this.state = 'ended';
    for (const off of this.#listening.splice(0)) off();
    this.from.relays.sent.delete(this.to.id);
    this.to.relays.received.delete(this.from.id);
    for (const peer of [...this.guests.keys()]) this.#dismiss(peer, LEFT.relayStopped);
    this.#pipes.releaseAll();
  }
}
