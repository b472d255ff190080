import { Room } from './room.mjs';

/** The meetings there are; one exists from its first participant to its last. */
export class Rooms {
  #rooms = new Map();

  constructor({ workers, settings, faults }) {
    this.parts = { workers, settings, faults, onEmpty: (room) => this.#rooms.delete(room.id) };
  }

  find(id) {
    return this.#rooms.get(id);
  }

  open(id) {
    let room = this.#rooms.get(id);
    if (!room) {
      room = new Room(id, this.parts);
      this.#rooms.set(id, room);
    }
    return room;
  }

  /** The meeting to which a participant had moved from `roomId` before its connection dropped. */
  ofReturning(roomId, peerId) {
    return this.all().find((room) => {
      const peer = room.peers.get(peerId);
      return peer && !peer.socket && peer.cameFrom.has(roomId);
    });
  }

  all() {
    return [...this.#rooms.values()];
  }
}
