// A mediasoup router for the tests of the client layer: requests come in as lines of JSON
// {id, method, data}, answers go out as {id, data} or {id, error}. It ends with its input.
import { createRequire } from 'node:module';
import { createInterface } from 'node:readline';

const require = createRequire(new URL('../../../server/package.json', import.meta.url));
const mediasoup = require('mediasoup');

const video = (mimeType, parameters = {}) => ({ kind: 'video', mimeType, clockRate: 90000, parameters });
const mediaCodecs = [
  { kind: 'audio', mimeType: 'audio/opus', clockRate: 48000, channels: 2 },
  video('video/VP8'),
  video('video/VP9', { 'profile-id': 0 }),
  video('video/H264', { 'packetization-mode': 1, 'profile-level-id': '42e01f', 'level-asymmetry-allowed': 1 }),
];

const worker = await mediasoup.createWorker({ logLevel: 'warn' });
const router = await worker.createRouter({ mediaCodecs });
const transports = new Map();
const producers = new Map();
const consumers = new Map();

const kept = (map, object) => {
  map.set(object.id, object);
  object.observer.on('close', () => map.delete(object.id));
  return object;
};

const methods = {
  capabilities: () => router.rtpCapabilities,
  async createTransport({ tcp }) {
    const transport = kept(transports, await router.createWebRtcTransport({
      listenInfos: [{ protocol: tcp ? 'tcp' : 'udp', ip: '127.0.0.1' }],
      initialAvailableOutgoingBitrate: 2_000_000,
    }));
    const { id, iceParameters, iceCandidates, dtlsParameters } = transport;
    return { id, iceParameters, iceCandidates, dtlsParameters };
  },
  async connect({ transportId, dtlsParameters }) {
    await transports.get(transportId).connect({ dtlsParameters });
    return {};
  },
  async produce({ transportId, kind, rtpParameters }) {
    const producer = kept(producers, await transports.get(transportId).produce({ kind, rtpParameters }));
    return { id: producer.id, type: producer.type };
  },
  async consume({ transportId, producerId, rtpCapabilities }) {
    const consumer = kept(consumers, await transports.get(transportId).consume({ producerId, rtpCapabilities, paused: true }));
    const { id, kind, rtpParameters, type } = consumer;
    return { id, producerId, kind, rtpParameters, type };
  },
  async resumeConsumer({ consumerId }) {
    await consumers.get(consumerId).resume();
    return {};
  },
  closeConsumer({ consumerId }) {
    consumers.get(consumerId).close();
    return {};
  },
  closeProducer({ producerId }) {
    producers.get(producerId).close();
    return {};
  },
  async preferredLayers({ consumerId, spatialLayer }) {
    await consumers.get(consumerId).setPreferredLayers({ spatialLayer, temporalLayer: 2 });
    return {};
  },
  async producerStats({ producerId }) {
    return { streams: await producers.get(producerId).getStats() };
  },
  async restartIce({ transportId }) {
    return transports.get(transportId).restartIce();
  },
};

for await (const line of createInterface({ input: process.stdin })) {
  const { id, method, data } = JSON.parse(line);
  Promise.resolve()
    .then(() => methods[method](data))
    .then((answer) => ({ id, data: answer }), (error) => ({ id, error: String(error) }))
    .then((answer) => process.stdout.write(`${JSON.stringify(answer)}\n`));
}
worker.close();
