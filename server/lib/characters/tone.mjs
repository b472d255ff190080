import { Application, createEncoder } from 'libopus-wasm';

export const RATE = 48000;
export const FRAME = 960; // samples of 20 ms
const FRAMES_A_SECOND = RATE / FRAME;
const RAMP = 240; // 5 ms: short for an ear, long enough not to click
const AMPLITUDE = 8000; // -15 dBov
// What the prediction between frames takes to forget what was before.
const SETTLING = 5;
// More than a receiver looks back when it has to invent what follows the last packet.
const TRAILING = 2;
const SILENT = 127;

// RFC 6464: the level in -dBov.
function levelOf(samples) {
  let sum = 0;
  for (const sample of samples) sum += sample * sample;
  const db = sum === 0 ? SILENT : -10 * Math.log10(sum / samples.length / 32768 ** 2);
  return Math.min(SILENT, Math.max(0, Math.round(db)));
}

/**
 * A sine of whole Hz as Opus packets, encoded once: after a second it repeats. A spurt is `lead`,
 * then `frame(0)`, `frame(1)`, …, then `ending(n)`. It begins and ends with silence, so that the
 * decoder is where the encoder was, whatever it has heard before.
 */
export class Tone {
  static async create(hz) {
    // This application alone never changes the coder within a stream.
    const encoder = await createEncoder({
      channels: 1,
      application: Application.RestrictedLowDelay,
      bitrate: 32000,
      complexity: 5,
    });
    return new Tone(encoder, hz);
  }

  #encoder;
  #frames;

  constructor(encoder, hz) {
    this.#encoder = encoder;
    this.hz = hz;
    this.#encode(new Int16Array(FRAME));
    this.lead = this.#encode(new Int16Array(FRAME));
    // The encoder has settled after the first second, and it is the second one that is repeated.
    this.#frames = Array.from({ length: 2 * FRAMES_A_SECOND }, (_, n) =>
      this.#encode(this.#samples(n)),
    );
  }

  #encode(samples) {
    return { payload: this.#encoder.encode(samples), level: levelOf(samples) };
  }

  #samples(n) {
    const samples = new Int16Array(FRAME);
    for (let i = 0; i < FRAME; i += 1) {
      const turns = (((n * FRAME + i) % RATE) * this.hz) / RATE;
      const ramp = n === 0 ? Math.min(1, i / RAMP) : 1;
      samples[i] = Math.round(AMPLITUDE * ramp * Math.sin(2 * Math.PI * turns));
    }
    return samples;
  }

  frame(n) {
    const { length } = this.#frames;
    return this.#frames[n < length ? n : FRAMES_A_SECOND + (n % FRAMES_A_SECOND)];
  }

  /** What comes instead of frame `n`, n > 0, when the spurt ends there. */
  ending(n) {
    for (let k = Math.max(0, n - SETTLING); k < n; k += 1) this.#encode(this.#samples(k));
    const last = this.#samples(n);
    for (let i = 0; i < FRAME; i += 1) last[i] *= Math.max(0, 1 - i / RAMP);
    const silence = Array.from({ length: TRAILING }, () => new Int16Array(FRAME));
    return [last, ...silence].map((samples) => this.#encode(samples));
  }

  free() {
    this.#encoder.free();
  }
}
