const SENTENCES = [
  'Good morning, can everybody hear me?',
  'Let us begin with what is new since last week.',
  'That took longer than I had thought.',
  'I will look at it this afternoon and write to you.',
  'Could you say that again, please?',
  'Then we agree on Thursday.',
];

const speaks = ({ media }) =>
  [...media.producers.values()].some(({ kind, paused }) => kind === 'audio' && !paused);

/** Makes up what is said: a sentence at a time, by those who publish sound, in turn. */
export class Voices {
  #running = false;
  #timer = undefined;
  #since = 0;
  #last = undefined;
  #said = 0;

  constructor(room) {
    this.room = room;
  }

  start() {
    this.#running = true;
    this.#since = performance.now();
    this.retime();
  }

  stop() {
    this.#running = false;
    clearTimeout(this.#timer);
  }

  /** The pace has changed; 0 means that nothing is said. */
  retime() {
    clearTimeout(this.#timer);
    const { id, settings } = this.room;
    const pace = settings.tempo.pace.of(id);
    if (!this.#running || pace === 0) return;
    const left = this.#since + pace - performance.now();
    this.#timer = setTimeout(() => this.#speak(), Math.max(0, left));
  }

  #speak() {
    const speaker = this.next();
    if (speaker) {
      this.say({ participantId: speaker.id, text: SENTENCES[this.#said % SENTENCES.length] });
      this.#said += 1;
    }
    this.#since = performance.now();
    this.retime();
  }

  /** Whose turn it is, if anybody publishes sound. */
  next() {
    const speaking = this.room.joined().filter(speaks);
    const index = speaking.findIndex(({ id }) => id === this.#last);
    return speaking[(index + 1) % speaking.length];
  }

  say({ participantId, participantName, text }) {
    this.#last = participantId;
    const name = participantName ?? this.room.peers.get(participantId)?.displayName ?? '';
    const what = { participantId, participantName: name, text };
    this.room.broadcast('transcriptionText', { ...what, timestamp: Date.now(), type: 'realtime' });
  }
}
