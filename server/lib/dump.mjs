import { dumpCharacter } from './characters/dump.mjs';
import { dumpConnection, dumpTopic } from './dump-realtime.mjs';
import { dumpRelays } from './relay/dump.mjs';

const stats = async (object) => object.getStats().catch(() => []);

async function dumpTransport({ direction, transport }) {
  const [report = {}] = await stats(transport);
  const { id, iceState, iceSelectedTuple, dtlsState } = transport;
  return {
    id,
    direction,
    iceState,
    dtlsState,
    protocol: iceSelectedTuple?.protocol,
    bytesReceived: report.bytesReceived,
    bytesSent: report.bytesSent,
    availableOutgoingBitrate: report.availableOutgoingBitrate,
  };
}

const pick = (from, keys) => Object.fromEntries(keys.map((key) => [key, from[key]]));

const COUNTERS = [
  ...['type', 'kind', 'mimeType', 'rid', 'byteCount', 'packetCount', 'packetsLost'],
  ...['bitrate', 'score', 'pliCount', 'nackCount'],
];
const counters = async (object) => (await stats(object)).map((entry) => pick(entry, COUNTERS));

async function dumpProducer(producer) {
  return {
    ...pick(producer, ['id', 'kind', 'type', 'paused', 'score', 'appData']),
    codec: producer.rtpParameters.codecs[0].mimeType,
    stats: await counters(producer),
  };
}

const dumpConsumer = (media) => async (consumer) => ({
  ...pick(consumer, ['id', 'producerId', 'kind', 'type', 'paused', 'producerPaused']),
  ...pick(consumer, ['score', 'currentLayers', 'preferredLayers']),
  peerId: consumer.appData.peerId,
  heldBy: media.holders(consumer),
  stats: await counters(consumer),
});

const each = (values, dump) => Promise.all([...values].map(dump));

async function dumpPeer(peer) {
  const { entry, joined, announced, moderator, adaptive, media } = peer;
  return {
    ...peer.describe(),
    entry,
    joined,
    announced,
    moderator,
    adaptive,
    connected: Boolean(peer.socket?.connected),
    transports: await each(media.transports(), dumpTransport),
    producers: await each(media.producers.values(), dumpProducer),
    consumers: await each(media.consumers.values(), dumpConsumer(media)),
  };
}

async function dumpRoom(room, { fastws, files }) {
  const peers = await each(room.peers.values(), dumpPeer);
  const here = fastws.connections().filter((connection) => connection.room === room);
  return {
    id: room.id,
    sessionId: room.sessionId,
    peers,
    characters: room.characters.all().map(dumpCharacter),
    relays: dumpRelays(room.relays),
    pubsub: { topics: room.topics.all().map(dumpTopic), connections: here.map(dumpConnection) },
    store: room.store.dump(),
    services: room.services.dump(),
    files: files.dump(room),
  };
}

/** What tests see of the meetings: everything in them, with what flowed so far. */
export const dumpRooms = (rooms, service) => each(rooms, (room) => dumpRoom(room, service));
