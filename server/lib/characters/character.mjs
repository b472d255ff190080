import { Voice } from './voice.mjs';

export const SPEAKING = 'characterSpeaking';
export const THINKING = 'characterThinking';
export const LISTENING = 'characterListening';

const MS_A_LETTER = 60;
const SPEECH = { shortest: 500, longest: 8000 };
const LONGEST_QUOTE = 60;

const speechMs = (text) =>
  Math.min(SPEECH.longest, Math.max(SPEECH.shortest, [...text].length * MS_A_LETTER));

function replyTo(text, { knowledgeBases, metaData }) {
  const words = [...text];
  const quote = words.slice(0, LONGEST_QUOTE).join('') + (words.length > LONGEST_QUOTE ? '…' : '');
  const read = knowledgeBases.length > 0 ? ` after a look into ${knowledgeBases.join(', ')}` : '';
  const minded = metaData.length > 0 ? `, with ${metaData.join(', ')} in mind` : '';
  return `You said "${quote}", and I agree${read}${minded}.`;
}

/**
 * A character of a meeting. It listens, thinks about what it is told, and says something about it;
 * whatever it is told or asked meanwhile ends that. `tell(method, data)` reaches everybody.
 */
export class Character {
  status = LISTENING;
  ready = false; // has its voice, if it is to have one
  announced = false;
  closed = false;
  voice = undefined;
  speakMs = undefined;
  #timer = undefined;

  constructor(config, { hz, thinkMs, tell }) {
    Object.assign(this, config, { hz, thinkMs, tell });
  }

  get speaks() {
    return this.characterMode !== 'text';
  }

  /** What those who receive it take for its transport's side. */
  get media() {
    return this.voice;
  }

  async open(router) {
    if (this.speaks) {
      const voice = await Voice.open(router, { peerId: this.id, hz: this.hz });
      if (this.closed) return voice.close();
      this.voice = voice;
    }
    this.ready = true;
  }

  /** As it is announced: like a participant, and what characters have besides. */
  describe() {
    const { id, displayName, interactionId, characterMode, characterRole, knowledgeBases } = this;
    const mode = this.speaks ? 'SEND_AND_RECV' : 'SIGNALLING_ONLY';
    const asPeer = { id, displayName, interactionId, mode };
    return { ...asPeer, characterMode, characterRole, knowledgeBases };
  }

  /** As the one who let it join hears of it. */
  answer() {
    const { id: characterId, displayName, interactionId, characterMode } = this;
    const { characterRole, knowledgeBases, metaData } = this;
    const own = { characterMode, characterRole, knowledgeBases, metaData };
    return { characterId, displayName, interactionId, ...own };
  }

  become(status) {
    this.status = status;
    this.announceStatus();
  }

  /** Tells everybody how it is. */
  announceStatus() {
    const { id, status } = this;
    this.tell('characterStateChanged', { id, status });
  }

  say(text, { participantId = this.id, participantName = this.displayName, timestamp } = {}) {
    this.tell('characterMessage', {
      characterId: this.id,
      text,
      participantId,
      participantName,
      timestamp: timestamp ?? new Date().toISOString(),
    });
  }

  /** Somebody tells it something. */
  hear(text, { id: participantId, displayName: participantName }) {
    this.silence();
    this.say(text, { participantId, participantName });
    this.become(THINKING);
    this.#timer = setTimeout(() => this.#reply(replyTo(text, this)), this.thinkMs);
  }

  #reply(text) {
    if (this.speaks) this.become(SPEAKING);
    this.say(text);
    if (this.speaks) this.#speak(this.speakMs ?? speechMs(text));
    else this.become(LISTENING);
  }

  /** Sounds for `ms`, without a word. */
  speak(ms) {
    this.silence();
    this.become(SPEAKING);
    this.#speak(ms);
  }

  #speak(ms) {
    this.voice.speak(ms, () => this.become(LISTENING));
  }

  /** Ends at once what it thinks or says; false when that is nothing. Nobody is told yet. */
  silence() {
    if (this.status === LISTENING) return false;
    clearTimeout(this.#timer);
    this.voice?.silence();
    this.status = LISTENING;
    return true;
  }

  async tune(hz) {
    this.hz = hz;
    await this.voice?.tune(hz);
  }

  // Nothing about it is heard here; what a video would need is not asked of it.
  notify() {}

  close() {
    this.closed = true;
    clearTimeout(this.#timer);
    this.voice?.close();
  }
}
