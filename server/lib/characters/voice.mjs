import { reach } from '../pipes.mjs';
import { pacer } from './pacer.mjs';
import { FRAME, RATE, Tone } from './tone.mjs';

const LEVEL_URI = 'urn:ietf:params:rtp-hdrext:ssrc-audio-level';
const random = (bits) => Math.floor(Math.random() * 2 ** bits);

// A stream as the router wants Opus and its level header.
function parametersFor({ rtpCapabilities: { codecs, headerExtensions } }) {
  const opus = codecs.find(({ mimeType }) => mimeType === 'audio/opus');
  const level = headerExtensions.find(({ kind, uri }) => kind === 'audio' && uri === LEVEL_URI);
  const { mimeType, clockRate, channels, preferredPayloadType: payloadType } = opus;
  const { preferredId: levelId } = level;
  const ssrc = 1 + random(31);
  const rtpParameters = {
    codecs: [{ mimeType, clockRate, channels, payloadType, rtcpFeedback: [] }],
    headerExtensions: [{ uri: LEVEL_URI, id: levelId }],
    encodings: [{ ssrc }],
    rtcp: { cname: `voice-${ssrc}`, reducedSize: true },
  };
  return { rtpParameters, ssrc, payloadType, levelId };
}

/** Makes the RTP packets of a stream: no hole in the numbers, and the time as it passes. */
class Packets {
  #sequence = random(15);
  #first = random(31);
  #began = performance.now();
  #offset = 0;
  #marker = false;
  sent = 0;

  constructor({ ssrc, payloadType, levelId }) {
    Object.assign(this, { ssrc, payloadType, levelId });
  }

  /** What comes next is the beginning of a spurt: its time stamp is of now. */
  begin() {
    const passed = Math.round(((performance.now() - this.#began) * RATE) / 1000);
    this.#offset = Math.max(this.#offset, passed);
    this.#marker = true;
  }

  make({ payload, level }) {
    const packet = Buffer.alloc(20 + payload.length);
    packet[0] = 0x90; // version 2, with header extensions
    packet[1] = this.payloadType | (this.#marker ? 0x80 : 0);
    packet.writeUInt16BE(this.#sequence & 0xffff, 2);
    packet.writeUInt32BE((this.#first + this.#offset) % 2 ** 32, 4);
    packet.writeUInt32BE(this.ssrc, 8);
    packet.writeUInt32BE(0xbede0001, 12); // one word of one-byte extensions
    packet[16] = this.levelId << 4;
    packet[17] = 0x80 | level;
    packet.set(payload, 20);
    this.#marker = false;
    this.#sequence += 1;
    this.#offset += FRAME;
    this.sent += 1;
    return packet;
  }
}

/**
 * A voice that the service makes: a tone in an audio producer, which sends nothing while it is
 * silent. To those who consume it, it is the media of `peerId`.
 */
export class Voice {
  static async open(router, { peerId, hz }) {
    const transport = await router.createDirectTransport();
    try {
      const { rtpParameters, ...format } = parametersFor(router);
      const producer = await transport.produce({
        kind: 'audio',
        appData: { peerId },
        rtpParameters,
      });
      const tone = await Tone.create(hz);
      const packets = new Packets(format);
      if (!transport.closed)
        return new Voice({ peerId, router, transport, producer, tone, packets });
      tone.free();
      throw new Error('the media worker is gone');
    } catch (error) {
      transport.close();
      throw error;
    }
  }

  #spurt = undefined;
  #nextTone = undefined;
  #turn = () => this.#speak();

  constructor({ peerId, router, transport, producer, tone, packets }) {
    Object.assign(this, { peerId, router, transport, producer, tone, packets });
    this.producers = new Map([[producer.id, producer]]);
    transport.observer.once('close', () => this.#closed());
  }

  get speaking() {
    return this.#spurt !== undefined;
  }

  routerOf() {
    return this.router;
  }

  reach(producer, router) {
    return reach(producer, this.router, router);
  }

  /** Speaks for `ms`, and calls `onEnd` if it comes to that end. */
  speak(ms, onEnd) {
    this.silence();
    this.#retune();
    const frames = Math.max(1, Math.round((ms * RATE) / 1000 / FRAME));
    this.packets.begin();
    this.#spurt = { n: -1, frames, onEnd, rest: undefined };
    pacer.add(this.#turn);
  }

  #speak() {
    const spurt = this.#spurt;
    const { n, frames, onEnd } = spurt;
    spurt.n += 1;
    if (n < frames) return this.#send(n < 0 ? this.tone.lead : this.tone.frame(n));
    spurt.rest ??= this.tone.ending(n);
    this.#send(spurt.rest.shift());
    if (spurt.rest.length > 0) return;
    this.#stop();
    onEnd();
  }

  /** Ends what it says: the end that does not click goes out at once, and nothing after it. */
  silence() {
    const spurt = this.#spurt;
    if (!spurt) return;
    this.#stop();
    const { n, rest } = spurt;
    for (const frame of rest ?? (n > 0 ? this.tone.ending(n) : [])) this.#send(frame);
  }

  #stop() {
    this.#spurt = undefined;
    pacer.remove(this.#turn);
  }

  #send(frame) {
    this.producer.send(this.packets.make(frame));
  }

  /** Another pitch, heard from the next thing that it says. */
  async tune(hz) {
    const tone = await Tone.create(hz);
    if (this.transport.closed) return tone.free();
    this.#nextTone?.free();
    this.#nextTone = tone;
  }

  #retune() {
    if (!this.#nextTone) return;
    this.tone.free();
    this.tone = this.#nextTone;
    this.#nextTone = undefined;
  }

  close() {
    this.transport.close();
  }

  #closed() {
    this.#stop();
    this.producers.clear();
    this.tone.free();
    this.#nextTone?.free();
  }
}
