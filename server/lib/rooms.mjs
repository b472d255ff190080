import { Room } from './room.mjs';

/** The meetings there are; one exists from its first participant to its last. */
export class Rooms {
  #rooms = new Map();

  /**
   * `onLeft(peer)` hears of each participant that is no longer in the meeting where it was,
   * `onEmpty(room)` of each meeting that has ended.
   */
  constructor({ workers, settings, faults, onLeft, onEmpty }) {
    const ended = (room) => {
      this.#rooms.delete(room.id);
      onEmpty(room);
    };
    this.parts = { workers, settings, faults, onLeft, onEmpty: ended };
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

  all() {
    return [...this.#rooms.values()];
  }
}
