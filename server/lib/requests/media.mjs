import * as read from '../read.mjs';
import { PREFERRED_PROTOCOLS, streamKind } from '../peer-media.mjs';
import { RequestError } from '../refusal.mjs';

const KINDS = ['audio', 'video'];
const CHOICES = [...KINDS, 'share', 'all'];
const HIGHEST_LAYER = 7;

async function getRouterRtpCapabilities({ room, peer, faults }) {
  const { router } = await room.media();
  const fault = faults.take('offerCodecs', { roomId: room.id, peerId: peer.id });
  return fault ? only(fault.codecs, router.rtpCapabilities) : router.rtpCapabilities;
}

// The audio codecs, the named ones, and the retransmission of these.
function only(names, { codecs, ...rest }) {
  const kept = codecs.filter((c) => c.kind === 'audio' || names.includes(c.mimeType));
  const payloadTypes = kept.map((codec) => codec.preferredPayloadType);
  const again = codecs.filter((codec) => payloadTypes.includes(codec.parameters?.apt));
  return { ...rest, codecs: [...kept, ...again] };
}

async function createWebRtcTransport({ room, peer, data, after }) {
  const protocol = read.oneOf(data, 'preferredProtocol', PREFERRED_PROTOCOLS);
  const producing = read.flag(data, 'producing');
  if (producing === read.flag(data, 'consuming')) {
    throw new RequestError(400, 'a transport is either "producing" or "consuming"');
  }
  const { media } = peer;
  const { router } = await room.media();
  const transport = await media.createTransport(router, producing ? 'send' : 'receive', protocol);
  const receiving = peer.joined && read.RECEIVING.includes(peer.mode);
  if (!producing && receiving) after(() => room.receive(peer));
  const { id, iceParameters, iceCandidates, dtlsParameters } = transport;
  return { id, iceParameters, iceCandidates, dtlsParameters };
}

async function connectWebRtcTransport({ peer, data }) {
  const transport = peer.media.transport(read.id(data, 'transportId'));
  const dtlsParameters = read.object(data, 'dtlsParameters');
  await transport.connect({ dtlsParameters });
}

async function restartIce({ peer, data }) {
  const transport = peer.media.transport(read.id(data, 'transportId'));
  return { transportId: transport.id, iceParameters: await transport.restartIce() };
}

function iceRestarted({ peer, data }) {
  peer.media.transport(read.id(data, 'transportId'));
}

async function produce({ room, peer, data, after }) {
  if (!read.SENDING.includes(peer.mode))
    throw new RequestError(409, `nothing is published in mode ${peer.mode}`);
  const kind = read.oneOf(data, 'kind', KINDS);
  const rtpParameters = read.object(data, 'rtpParameters');
  const appData = read.object(data, 'appData');
  const producer = await peer.media.produce(read.id(data, 'transportId'), {
    kind,
    rtpParameters,
    appData,
  });
  const state = { peerId: peer.id, kind: streamKind(producer) };
  producer.observer.once('close', () => {
    const closed = { ...state, newState: false };
    if (peer.announced) peer.room.broadcast('participantMediaStateChanged', closed, peer);
  });
  after(() => room.publish(peer, producer));
  return { id: producer.id };
}

function closeProducer({ peer, data }) {
  peer.media.producer(read.id(data, 'producerId')).close();
}

function setConsumerPreferredLayers({ peer, data }) {
  const consumer = peer.media.consumer(read.id(data, 'consumerId'));
  const spatialLayer = read.integer(data, 'spatialLayer', HIGHEST_LAYER);
  const temporalLayer = read.integer(data, 'temporalLayer', HIGHEST_LAYER);
  return consumer.setPreferredLayers({ spatialLayer, temporalLayer });
}

const one =
  (action) =>
  ({ peer, data }) =>
    peer.media[action](peer.media.consumer(read.id(data, 'consumerId')));

const all =
  (action) =>
  async ({ peer, data }) => {
    const kind = read.oneOf(data, 'kind', CHOICES);
    const consumersWithIssues = [];
    for (const consumer of peer.media.consumers.values()) {
      if (kind !== 'all' && kind !== streamKind(consumer)) continue;
      await peer.media[action](consumer).catch(() => consumersWithIssues.push(consumer.id));
    }
    return { consumersWithIssues };
  };

function changeMode({ room, peer, data, after }) {
  const mode = read.oneOf(data, 'mode', read.MODES);
  const received = read.RECEIVING.includes(peer.mode);
  peer.setMode(mode);
  // Only now: the client may not have its new transport yet when that one is answered.
  after(() => {
    room.changeMode(peer, mode);
    if (!received) room.receive(peer);
  });
  return { mode };
}

const adaptive =
  (on) =>
  async ({ peer }) => {
    peer.adaptive = on;
    if (on) return;
    for (const consumer of peer.media.managed())
      await peer.media.resumeByManager(consumer, 'adaptive subscription is off');
  };

export const mediaRequests = {
  getRouterRtpCapabilities: { needs: 'entry', run: getRouterRtpCapabilities },
  createWebRtcTransport: { needs: 'entry', run: createWebRtcTransport },
  connectWebRtcTransport: { needs: 'entry', run: connectWebRtcTransport },
  restartIce: { needs: 'entry', run: restartIce },
  iceRestarted: { needs: 'entry', run: iceRestarted },
  produce: { needs: 'join', run: produce },
  // Also between two meetings: one who mutes then is not heard in the next.
  closeProducer: { needs: 'entry', run: closeProducer },
  pauseConsumer: { needs: 'join', run: one('pauseConsumer') },
  resumeConsumer: { needs: 'join', run: one('resumeConsumer') },
  pauseAllConsumers: { needs: 'join', run: all('pauseConsumer') },
  resumeAllConsumers: { needs: 'join', run: all('resumeConsumer') },
  setConsumerPreferredLayers: { needs: 'join', run: setConsumerPreferredLayers },
  changeMode: { needs: 'join', run: changeMode },
  enableAdaptiveSubscription: { needs: 'join', run: adaptive(true) },
  disableAdaptiveSubscription: { needs: 'join', run: adaptive(false) },
};
