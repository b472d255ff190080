import { timingSafeEqual } from 'node:crypto';
import { HttpError, readJson, sendJson } from './http.mjs';
import { isObject } from './read.mjs';
import { LEFT } from './room.mjs';

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

async function dumpConsumer(consumer) {
  return {
    ...pick(consumer, ['id', 'producerId', 'kind', 'type', 'paused', 'producerPaused']),
    ...pick(consumer, ['score', 'currentLayers', 'preferredLayers']),
    peerId: consumer.appData.peerId,
    stats: await counters(consumer),
  };
}

const each = (values, dump) => Promise.all([...values].map(dump));

async function dumpPeer(peer) {
  const { entry, joined, announced, moderator, media } = peer;
  return {
    ...peer.describe(),
    entry,
    joined,
    announced,
    moderator,
    connected: Boolean(peer.socket?.connected),
    transports: await each(media.transports(), dumpTransport),
    producers: await each(media.producers.values(), dumpProducer),
    consumers: await each(media.consumers.values(), dumpConsumer),
  };
}

const dumpRoom = async (room) => ({
  id: room.id,
  sessionId: room.sessionId,
  peers: await each(room.peers.values(), dumpPeer),
});

function need(value, what) {
  if (value === undefined || value === null) throw new HttpError(404, `no such ${what}`);
  return value;
}

function transportOf(media, { transportId, direction = 'send' }) {
  const list = media.transports();
  const found = list.find((t) =>
    transportId ? t.transport.id === transportId : t.direction === direction,
  );
  return need(found, 'transport').transport;
}

/** Finds what a request names; functions, so that only what an action uses must exist. */
function targets({ rooms }, body) {
  const room = () => need(rooms.find(body.roomId), 'meeting');
  const peer = () => need(room().peers.get(body.peerId), 'participant');
  const connected = () => {
    const found = peer();
    if (!found.socket) throw new HttpError(409, 'the participant is not connected');
    return found;
  };
  return { room, peer, connected };
}

const fault =
  (kind, ...keys) =>
  ({ faults }, body) => {
    const { roomId, peerId, method, count = 1 } = body;
    if (!Number.isInteger(count) || count < 1)
      throw new HttpError(400, '"count" must be a whole number from 1');
    const effect = Object.fromEntries(keys.map((key) => [key, body[key]]));
    const match = kind === 'answerConfig' ? { roomId } : { roomId, peerId, method };
    faults.add(kind, match, effect, count);
  };

const DROPS = {
  terminate: (socket) => socket.conn.transport.socket.terminate(),
  close: (socket) => socket.conn.close(true),
  disconnect: (socket) => socket.disconnect(true),
};

const ACTIONS = {
  rooms: async ({ rooms, workers }, { roomId }) => ({
    rooms: await each(
      rooms.all().filter((room) => !roomId || room.id === roomId),
      dumpRoom,
    ),
    workers: workers.pids(),
  }),
  async emit(service, body, { connected }) {
    const { outbox, socket } = connected();
    if (typeof body.raw === 'string') return void socket.conn.write(body.raw);
    if (typeof body.event !== 'string') throw new HttpError(400, '"event" must be a text');
    const args = Array.isArray(body.args) ? body.args : [body.payload];
    if (!body.ack) return void outbox.emit(body.event, args);
    if (body.timeoutMs !== undefined && !(body.timeoutMs > 0))
      throw new HttpError(400, '"timeoutMs" must be above 0');
    return outbox.request(body.event, args, body.timeoutMs).then(
      (ack) => ({ ack }),
      (error) => {
        throw new HttpError(504, error.message);
      },
    );
  },
  notify(service, body, { connected }) {
    connected().notify(body.method, body.data);
  },
  dropSocket(service, { how = 'terminate' }, { connected }) {
    need(
      Object.hasOwn(DROPS, how) ? DROPS[how] : undefined,
      'way to drop a socket',
    )(connected().socket);
  },
  refuseConnections: fault('refuseConnections'),
  delayAck: fault('delayAck', 'ms'),
  swallowAck: fault('swallowAck'),
  answerWrong: fault('answerWrong', 'answer', 'alsoRun'),
  answerConfig: fault('answerConfig', 'status', 'json', 'text'),
  refuseEntry: fault('refuseEntry', 'how', 'errorCode'),
  clearFaults: ({ faults }) => faults.clear(),
  setUnsupportedCodecs({ faults }, { roomId, codecs }) {
    faults.setUnsupportedCodecs(roomId, codecs);
  },
  closeTransport(service, body, { peer }) {
    transportOf(peer().media, body).close();
  },
  async restartIce(service, body, { connected }) {
    const peer = connected();
    const transport = transportOf(peer.media, body);
    const answer = { transportId: transport.id, iceParameters: await transport.restartIce() };
    peer.notify('restartIce', answer);
    return answer;
  },
  async pauseConsumer(service, { consumerId }, { peer }) {
    const { media } = peer();
    await media.pauseConsumer(need(media.consumers.get(consumerId), 'consumer'));
  },
  async resumeConsumer(service, { consumerId }, { peer }) {
    const { media } = peer();
    await media.resumeConsumer(need(media.consumers.get(consumerId), 'consumer'));
  },
  async pauseProducer(service, { producerId }, { peer }) {
    await need(peer().media.producers.get(producerId), 'producer').pause();
  },
  async resumeProducer(service, { producerId }, { peer }) {
    await need(peer().media.producers.get(producerId), 'producer').resume();
  },
  removePeer(service, { code = LEFT.removed }, { room, peer }) {
    room().remove(peer(), code, { told: true });
  },
  closeRoom(service, { code = LEFT.roomClosed }, { room }) {
    room().close(code);
  },
};

function authorised(key, header = '') {
  const given = Buffer.from(header);
  const wanted = Buffer.from(key);
  return given.length === wanted.length && timingSafeEqual(given, wanted);
}

/** POST /control/<action>: what a test uses to look into the service and to break things. */
export function controlHandler(service) {
  return async (request, response, name) => {
    if (!authorised(service.controlKey, request.headers.authorization)) {
      throw new HttpError(401, 'the control key is missing or wrong');
    }
    const action = need(Object.hasOwn(ACTIONS, name) ? ACTIONS[name] : undefined, 'action');
    const body = await readJson(request);
    if (!isObject(body)) throw new HttpError(400, 'the body must be an object');
    const result = await action(service, body, targets(service, body));
    sendJson(response, 200, { ok: true, ...result });
  };
}
