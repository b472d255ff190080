import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import { after, before, describe, it } from 'node:test';
import { createDecoder } from 'libopus-wasm';
import * as mediasoup from 'mediasoup';
import { pacer } from '../lib/characters/pacer.mjs';
import { FRAME, RATE, Tone } from '../lib/characters/tone.mjs';
import { Voice } from '../lib/characters/voice.mjs';
import { pitchOf, within } from './support.mjs';

// How far each sample is from the sine that its two neighbours are on: a click stands out.
function roughness(samples, hz) {
  const twice = 2 * Math.cos((2 * Math.PI * hz) / RATE);
  let most = 0;
  for (let i = 2; i < samples.length; i += 1)
    most = Math.max(most, Math.abs(samples[i] - twice * samples[i - 1] + samples[i - 2]));
  return most;
}

const loudest = (samples) => samples.reduce((most, one) => Math.max(most, Math.abs(one)), 0);

describe('tones', () => {
  it('sound without a click from silence to silence, however long and however often', async () => {
    const decoder = await createDecoder({ channels: 1 });
    for (const hz of [300, 523, 877]) {
      const tone = await Tone.create(hz);
      // Two frames, an end within the first second, and beyond the seams of two repetitions.
      for (const frames of [2, 31, 217]) {
        const middle = Array.from({ length: frames }, (_, n) => tone.frame(n));
        const spurt = [tone.lead, ...middle, ...tone.ending(frames)];
        const heard = Int16Array.from(spurt.flatMap(({ payload }) => [...decoder.decode(payload)]));
        assert.ok(roughness(heard, hz) < 60, `${hz} Hz, ${frames}: ${roughness(heard, hz)}`);
        assert.ok(loudest(heard.subarray(0, FRAME)) < 100 && loudest(heard.subarray(-FRAME)) < 100);
        assert.ok(Math.abs(loudest(heard) - 8000) < 800, `${hz} Hz, ${frames}: ${loudest(heard)}`);
        const [from, to] = [2 * FRAME, (frames + 1) * FRAME];
        if (frames > 2) assert.ok(Math.abs(pitchOf(heard.subarray(from, to)) - hz) < 0.5);
        const levels = spurt.map(({ level }) => level);
        assert.deepEqual([levels[0], levels[2], levels.at(-1)], [127, 15, 127]);
      }
      tone.free();
    }
    decoder.free();
  });
});

describe('voices', () => {
  let worker;
  let router;
  before(async () => {
    worker = await mediasoup.createWorker({ logLevel: 'error', disableLiburing: true });
    const opus = { kind: 'audio', mimeType: 'audio/opus', clockRate: RATE, channels: 2 };
    router = await worker.createRouter({ mediaCodecs: [opus] });
  });
  after(async () => {
    worker.close();
    await once(worker, 'subprocessclose');
  });

  // Every packet of a voice, as one who consumes it gets them.
  async function listen({ producer }) {
    const transport = await router.createDirectTransport();
    const { rtpCapabilities } = router;
    const consumer = await transport.consume({ producerId: producer.id, rtpCapabilities });
    const packets = [];
    const waiting = new Set();
    consumer.on('rtp', (packet) => {
      packets.push({
        marker: packet[1] >= 0x80,
        sequence: packet.readUInt16BE(2),
        timestamp: packet.readUInt32BE(4),
      });
      for (const look of waiting) look();
    });
    const count = (n) =>
      within(`${n} packets`, (resolve) => {
        const look = () => packets.length >= n && (waiting.delete(look), resolve(packets));
        waiting.add(look);
        look();
      });
    return { packets, count };
  }

  const spoken = (voice, ms) => within('an end', (resolve) => voice.speak(ms, resolve));
  const steps = (packets, key, wrap) =>
    packets.slice(1).map((packet, i) => (packet[key] - packets[i][key] + wrap) % wrap);

  it('count on over silences, while the time passes', async () => {
    const voice = await Voice.open(router, { peerId: 'robin', hz: 440 });
    const heard = await listen(voice);
    const began = performance.now();
    await spoken(voice, 100);
    await spoken(await Voice.open(router, { peerId: 'wren', hz: 300 }), 200);
    assert.equal(voice.packets.sent, 1 + 5 + 3, 'nothing is sent in a silence');
    await spoken(voice, 60);
    // A lead, the sound, its end and what trails.
    const packets = await heard.count(1 + 5 + 3 + 1 + 3 + 3);
    const marked = packets.flatMap(({ marker }, at) => (marker ? [at] : []));
    assert.deepEqual(marked, [0, 9]);
    assert.ok(steps(packets, 'sequence', 2 ** 16).every((step) => step === 1));
    const times = steps(packets, 'timestamp', 2 ** 32);
    const [pause] = times.splice(8, 1);
    assert.ok(times.every((step) => step === FRAME));
    const most = ((performance.now() - began) * RATE) / 1000;
    assert.ok(pause >= 0.2 * RATE && pause < most, `${pause} of ${most}`);
    assert.equal(pacer.running, false);
    voice.close();
  });

  it('end at once, with the end of their sound and nothing after it', async () => {
    const voice = await Voice.open(router, { peerId: 'robin', hz: 440 });
    const heard = await listen(voice);
    const ended = [];
    voice.speak(8000, () => ended.push('robin'));
    await heard.count(4);
    voice.silence();
    const { sent } = voice.packets;
    assert.equal(pacer.running, false);
    voice.silence();
    assert.equal(voice.packets.sent, sent);
    const packets = [...(await heard.count(sent))];
    // Spoken to again at once: the times go on from what was sent ahead.
    voice.speak(20, () => ended.push('again'));
    voice.speak(20, () => ended.push('at last'));
    await heard.count(sent + 5);
    assert.deepEqual(ended, ['at last']);
    const times = steps(heard.packets.slice(packets.length - 1), 'timestamp', 2 ** 32);
    assert.ok(times.every((step) => step >= FRAME && step < RATE), `${times}`);
    voice.speak(8000, () => ended.push('closed'));
    const ending = once(voice.transport.observer, 'close');
    voice.close();
    await ending;
    assert.equal(pacer.running, false);
  });
});
