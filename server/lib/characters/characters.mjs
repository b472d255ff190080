import { RequestError } from '../refusal.mjs';
import { Character } from './character.mjs';

const MOST = 20;
// 31 pitches from 300 to 900 Hz; being a prime number, any step meets all of them.
const PITCHES = { lowest: 300, apart: 20, count: 31, step: 7 };

/** The characters of a meeting. */
export class Characters {
  #all = new Map();

  constructor(room) {
    this.room = room;
  }

  all() {
    return [...this.#all.values()];
  }

  /** Those whose voice can be received. */
  voices() {
    return this.all().filter(({ announced, voice }) => announced && voice);
  }

  has(id) {
    return this.#all.has(id);
  }

  get(id) {
    const character = this.#all.get(id);
    if (!character?.ready) throw new RequestError(404, 'no such character');
    return character;
  }

  /** One more, of whom nobody has heard yet. */
  async add(config, hz) {
    const { room } = this;
    const { id } = config;
    if (room.closed) throw new RequestError(409, 'the meeting has ended');
    if (this.has(id)) throw new RequestError(409, 'the character has joined already');
    if (room.isTaken(id)) throw new RequestError(409, 'a participant has this id');
    if (this.#all.size >= MOST)
      throw new RequestError(507, `a meeting has at most ${MOST} characters`);
    const character = new Character(config, {
      hz: hz ?? this.#pitchFor(id),
      thinkMs: room.settings.characterThink,
      tell: (method, data) => {
        if (character.announced) room.broadcast(method, data);
      },
    });
    this.#all.set(id, character);
    try {
      await character.open((await room.media()).router);
    } catch (error) {
      this.#forget(character);
      throw error;
    }
    if (character.closed) throw new RequestError(409, 'the character was removed meanwhile');
    return character;
  }

  // By the id, so that it is the same every time, unless another in the meeting sounds like that.
  #pitchFor(id) {
    const taken = new Set(this.all().map(({ hz }) => hz));
    let at = [...id].reduce((sum, letter) => (sum * 31 + letter.codePointAt(0)) % 65521, 7);
    const pitch = () => PITCHES.lowest + PITCHES.apart * (at % PITCHES.count);
    while (taken.has(pitch())) at += PITCHES.step;
    return pitch();
  }

  /** Tells everybody of one that was added; those who can hear it do so from now on. */
  announce(character) {
    if (character.announced || character.closed) return;
    character.announced = true;
    for (const peer of this.room.joined()) this.#introduce(character, peer);
  }

  /** Gives it to those who hear. */
  async offer(character) {
    if (!character.voice || character.closed) return;
    for (const producer of character.voice.producers.values())
      await this.room.offer(character, producer);
  }

  /** Tells one who has just joined of all. */
  welcome(peer) {
    for (const character of this.all()) if (character.announced) this.#introduce(character, peer);
  }

  #introduce(character, peer) {
    peer.notify('addCharacter', character.describe());
    const { id, status } = character;
    peer.notify('characterStateChanged', { id, status });
  }

  remove(character) {
    if (character.closed) return;
    this.#forget(character);
    if (!character.announced) return;
    for (const peer of this.room.joined()) peer.media.dropConsumersOf(character.id);
    this.room.broadcast('removeCharacter', { id: character.id });
  }

  #forget(character) {
    this.#all.delete(character.id);
    character.voice?.producers.clear();
    character.close();
  }

  close() {
    for (const character of this.all()) this.#forget(character);
  }
}
