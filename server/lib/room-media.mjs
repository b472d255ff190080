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

/** A meeting's router and the observer that tells who speaks. */
export class RoomMedia {
  static async open(worker, onSpeaker) {
    const router = await worker.createRouter({ mediaCodecs: CODECS });
    const levels = await router.createAudioLevelObserver(SPEAKER);
    return new RoomMedia(router, levels, onSpeaker);
  }

  #speaker = null;

  constructor(router, levels, onSpeaker) {
    this.router = router;
    this.levels = levels;
    this.onSpeaker = onSpeaker;
    levels.on('volumes', ([loudest]) => this.#speaks(loudest.producer.appData.peerId));
    levels.on('silence', () => this.#speaks(null));
  }

  #speaks(peerId) {
    if (peerId === this.#speaker) return;
    this.#speaker = peerId;
    this.onSpeaker(peerId);
  }

  async listen(producer) {
    producer.observer.once('close', () => {
      if (producer.appData.peerId === this.#speaker) this.#speaks(null);
    });
    await this.levels.addProducer({ producerId: producer.id });
  }

  close() {
    this.router.close();
  }
}
