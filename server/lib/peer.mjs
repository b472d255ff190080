import { PeerMedia } from './peer-media.mjs';
import { Outbox } from './outbox.mjs';
import { RECEIVING, SENDING } from './read.mjs';

/**
 * A participant of a room. It outlives its connection by the grace time, so that one that comes
 * back is still the same to the others.
 */
export class Peer {
  displayName = '';
  device = '';
  metaData = {};
  mode;
  entry = 'none';
  joined = false;
  announced = false;
  leaveCode = undefined;
  socket = undefined;
  outbox = undefined;
  media = undefined;
  graceTimer = undefined;
  // The meeting that it asks to move to, and that which it came from, as long as its client may
  // not have heard of the move.
  asks = undefined;
  cameFrom = undefined;
  switching = false;
  adaptive = false;

  constructor(room, id, settings) {
    this.room = room;
    this.id = id;
    this.settings = settings;
  }

  /** Binds a new connection; media and joining of an earlier one are over. */
  attach(socket, { mode, claims, secret }) {
    clearTimeout(this.graceTimer);
    this.leaveCode = undefined;
    Object.assign(this, {
      socket,
      mode,
      secret,
      moderator: claims.permissions.includes('allow_mod'),
    });
    this.mayEnter = this.moderator || claims.permissions.includes('allow_join');
    Object.assign(this, { joined: false, switching: false, adaptive: false });
    this.cameFrom = undefined;
    this.media?.close();
    const outbox = new Outbox(socket, this.settings);
    this.outbox = outbox;
    this.media = new PeerMedia({
      peerId: this.id,
      notify: (method, data) => this.notify(method, data),
      offer: (data) =>
        outbox.request('newConsumer', [{ method: 'newConsumer', data, notification: true }]),
      listenAt: this.settings.media,
      log: this.settings.log,
    });
  }

  /** Goes to another room with all it has; to be joined there. */
  move(room, { mode, moderator, secret }) {
    this.cameFrom = this.room.id;
    Object.assign(this, { room, mode, moderator, secret, entry: 'allowed', switching: true });
    Object.assign(this, { joined: false, announced: false });
  }

  /**
   * Whether a request that names `roomId` is meant for where this is. A connection is in order: once
   * its client has named the new meeting, nothing can be under way that still names the old one.
   */
  isIn(roomId, method) {
    if (roomId === this.room.id) this.cameFrom = undefined;
    else if (roomId !== this.cameFrom || method === 'join') return false;
    return true;
  }

  /** Closes the transport of a direction that `mode` doesn't have. */
  setMode(mode) {
    if (!SENDING.includes(mode)) this.media.closeTransport('send');
    if (!RECEIVING.includes(mode)) this.media.closeTransport('receive');
    this.mode = mode;
  }

  notify(method, data) {
    this.outbox?.notify(method, data);
  }

  describe() {
    const { id, displayName, device, metaData, mode } = this;
    return { id, displayName, device, metaData, mode };
  }

  /** Tells the client to go, and hangs up if it hasn't after a while. */
  dismiss(code) {
    clearTimeout(this.graceTimer);
    const { socket } = this;
    this.notify('close', { reason: { code } });
    this.outbox?.flush();
    this.outbox = undefined;
    this.socket = undefined;
    this.media?.close();
    if (socket) setTimeout(() => socket.disconnect(true), this.settings.linger).unref();
  }
}
