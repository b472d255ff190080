const VIDEO_FEEDBACK = [
  { type: 'nack' },
  { type: 'nack', parameter: 'pli' },
  { type: 'ccm', parameter: 'fir' },
  { type: 'goog-remb' },
  { type: 'transport-cc' },
];

const video = (mimeType, parameters = {}) => ({
  kind: 'video',
  mimeType,
  clockRate: 90000,
  parameters,
  rtcpFeedback: VIDEO_FEEDBACK,
});

const h264 = (profile) =>
  video('video/H264', {
    'packetization-mode': 1,
    'profile-level-id': profile,
    'level-asymmetry-allowed': 1,
  });

const CODECS = [
  {
    kind: 'audio',
    mimeType: 'audio/opus',
    clockRate: 48000,
    channels: 2,
    rtcpFeedback: [{ type: 'nack' }, { type: 'transport-cc' }],
  },
  video('video/VP8'),
  video('video/VP9', { 'profile-id': 0 }),
  h264('42e01f'),
  h264('4d0032'),
];

export const VIDEO_CODECS = [
  ...new Set(CODECS.filter((c) => c.kind === 'video').map((c) => c.mimeType)),
];

// One voice is announced at a time; quieter than this, in dBov, counts as silence.
const SPEAKER = { maxEntries: 1, threshold: -60, interval: 500 };

// All meetings of a worker share its router, so that a participant who moves keeps its transports.
function routerOf(worker) {
  worker.appData.router ??= worker.createRouter({ mediaCodecs: CODECS }).then((router) => {
    router.observer.setMaxListeners(0);
    return router;
  });
  return worker.appData.router;
}

/** Where a meeting's media runs, and the observer that tells who speaks. */
export class RoomMedia {
  static async open(worker, onSpeaker) {
    const router = await routerOf(worker);
    const levels = await router.createAudioLevelObserver(SPEAKER);
    return new RoomMedia(router, levels, onSpeaker);
  }

  #speaker = null;
  #names = new Map(); // producer id -> who is heard in it here

  constructor(router, levels, onSpeaker) {
    this.router = router;
    this.levels = levels;
    this.onSpeaker = onSpeaker;
    levels.on('volumes', ([loudest]) => this.#speaks(this.#names.get(loudest.producer.id) ?? null));
    levels.on('silence', () => this.#speaks(null));
  }

  #speaks(peerId) {
    if (peerId === this.#speaker) return;
    this.#speaker = peerId;
    this.onSpeaker(peerId);
  }

  async listen(producer, peerId) {
    this.#names.set(producer.id, peerId);
    producer.observer.once('close', () => this.#silent(producer));
    await this.levels.addProducer({ producerId: producer.id });
  }

  /** Stops listening to one who goes to another meeting. */
  async ignore(producer) {
    this.#silent(producer);
    await this.levels.removeProducer({ producerId: producer.id });
  }

  #silent(producer) {
    const peerId = this.#names.get(producer.id);
    this.#names.delete(producer.id);
    if (peerId !== undefined && peerId === this.#speaker) this.#speaks(null);
  }

  /** Calls `fn` when the worker is gone, unless this is closed first. */
  onLost(fn) {
    this.lost = fn;
    this.router.observer.once('close', fn);
  }

  close() {
    if (this.lost) this.router.observer.off('close', this.lost);
    this.levels.close();
  }
}
