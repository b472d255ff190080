const SAMPLE_MS = 250;
const WINDOW_MS = 2000;
const THUMBNAIL = { width: 32, height: 18 };
const LOUD_DECIBELS = -60;

const play = (kind, track) => {
  const element = Object.assign(document.createElement(kind), { autoplay: true, muted: true });
  element.srcObject = new MediaStream([track]);
  document.body.append(element);
  return element;
};

async function inbound(consumer) {
  const report = await consumer.getStats();
  const entry = [...report.values()].find(({ type }) => type === 'inbound-rtp') ?? {};
  return { entry, codec: report.get(entry.codecId)?.mimeType };
}

/** What is seen of a video consumer: pictures a second, their size, how many differ. */
export class PictureWatch {
  seen = { frames: 0, decoded: 0, fps: 0, width: 0, height: 0, different: 0, left: [], right: [] };
  #times = [];
  #last = '';

  constructor(consumer) {
    this.consumer = consumer;
    this.video = play('video', consumer.track);
    const canvas = new OffscreenCanvas(THUMBNAIL.width, THUMBNAIL.height);
    this.thumbnail = canvas.getContext('2d', { willReadFrequently: true });
    this.#await();
    this.timer = setInterval(() => this.#sample(), SAMPLE_MS);
  }

  #await() {
    this.video.requestVideoFrameCallback((now, { width, height }) => {
      this.#picture(now, width, height);
      this.#await();
    });
  }

  #picture(now, width, height) {
    const { seen, thumbnail } = this;
    this.#times = [...this.#times.filter((time) => now - time < WINDOW_MS), now];
    Object.assign(seen, { width, height, frames: seen.frames + 1 });
    thumbnail.drawImage(this.video, 0, 0, THUMBNAIL.width, THUMBNAIL.height);
    const { data } = thumbnail.getImageData(0, 0, THUMBNAIL.width, THUMBNAIL.height);
    const text = data.join();
    if (text !== this.#last) seen.different += 1;
    this.#last = text;
    const at = (x) => [...data.subarray((THUMBNAIL.width * 2 + x) * 4).subarray(0, 3)];
    Object.assign(seen, { left: at(1), right: at(THUMBNAIL.width - 2) });
  }

  async #sample() {
    const { entry, codec } = await inbound(this.consumer);
    const recent = this.#times.filter((time) => performance.now() - time < WINDOW_MS);
    const fps = (recent.length * 1000) / WINDOW_MS;
    Object.assign(this.seen, { codec, decoded: entry.framesDecoded ?? 0, fps });
  }

  stop() {
    clearInterval(this.timer);
    this.video.remove();
  }
}

/** What is heard of an audio consumer: the strongest tone, if there is a loud one. */
export class ToneWatch {
  seen = { decibels: -Infinity, hertz: undefined };

  constructor(consumer) {
    this.consumer = consumer;
    // A remote track is silent for the analyser unless an element plays it too.
    this.audio = play('audio', consumer.track);
    this.context = new AudioContext();
    this.analyser = new AnalyserNode(this.context, { fftSize: 8192, smoothingTimeConstant: 0 });
    this.context.createMediaStreamSource(new MediaStream([consumer.track])).connect(this.analyser);
    this.timer = setInterval(() => this.#sample(), SAMPLE_MS);
  }

  async #sample() {
    const { codec } = await inbound(this.consumer);
    const bins = new Float32Array(this.analyser.frequencyBinCount);
    this.analyser.getFloatFrequencyData(bins);
    const top = bins.indexOf(Math.max(...bins));
    const width = this.context.sampleRate / this.analyser.fftSize;
    const loud = bins[top] > LOUD_DECIBELS;
    Object.assign(this.seen, {
      codec,
      decibels: bins[top],
      hertz: loud ? top * width : undefined,
    });
  }

  stop() {
    clearInterval(this.timer);
    this.audio.remove();
    this.context.close();
  }
}
