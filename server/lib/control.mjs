import { timingSafeEqual } from 'node:crypto';
import { characterActions } from './control-characters.mjs';
import { observabilityActions } from './control-observability.mjs';
import { checkMs, fault, need } from './control-parts.mjs';
import { realtimeActions } from './control-realtime.mjs';
import { relayActions } from './control-relay.mjs';
import { serviceActions } from './control-services.mjs';
import { drop, DROPS } from './drop.mjs';
import { dumpRooms } from './dump.mjs';
import { HttpError, readJson, sendJson } from './http.mjs';
import { streamKind } from './peer-media.mjs';
import { isId, isObject, MODES } from './read.mjs';
import { LEFT } from './room.mjs';
import { VIDEO_CODECS } from './room-media.mjs';

function transportOf(media, { transportId, direction = 'send' }) {
  const list = media.transports();
  const found = list.find((t) =>
    transportId ? t.transport.id === transportId : t.direction === direction,
  );
  return need(found, 'transport').transport;
}

const KINDS = ['audio', 'video', 'share'];

// By its id, or as the one of this kind (of this participant).
function streamOf(map, { id, kind, ofPeerId }, what) {
  if (id !== undefined) return need(map.get(id), what);
  if (!KINDS.includes(kind)) throw new HttpError(400, `"${what}Id" or "kind" must name one`);
  const fits = (one) =>
    streamKind(one) === kind && (ofPeerId === undefined || one.appData.peerId === ofPeerId);
  return need([...map.values()].find(fits), what);
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
  const consumer = () => {
    const { consumerId: id, kind, ofPeerId } = body;
    return streamOf(peer().media.consumers, { id, kind, ofPeerId }, 'consumer');
  };
  const producer = () => {
    const { producerId: id, kind } = body;
    return streamOf(peer().media.producers, { id, kind }, 'producer');
  };
  const mode = (fallback) => {
    const { mode: wanted = fallback } = body;
    if (!MODES.includes(wanted)) throw new HttpError(400, 'the mode is unknown');
    return wanted;
  };
  return { room, peer, connected, consumer, producer, mode };
}

const checkDrop = ({ how = DROPS[0], downMs = 0 }) => {
  if (!DROPS.includes(how)) throw new HttpError(404, 'no such way to drop a socket');
  checkMs(downMs, 'downMs');
};

const ACTIONS = {
  rooms: async (service, { roomId }) => ({
    rooms: await dumpRooms(
      service.rooms.all().filter((room) => !roomId || room.id === roomId),
      service,
    ),
    workers: service.workers.pids(),
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
  dropSocket({ rooms, faults }, body, { room, connected }) {
    const { roomId, peerId } = body;
    checkDrop(body);
    if (peerId !== undefined) return drop(connected(), body, faults);
    for (const { peers } of roomId === undefined ? rooms.all() : [room()]) {
      for (const peer of [...peers.values()]) if (peer.socket) drop(peer, body, faults);
    }
  },
  restart({ restart }, { downMs = 0, keepRooms = false }, { afterAnswer }) {
    checkMs(downMs, 'downMs');
    afterAnswer(() => restart(downMs, { keepRooms: keepRooms === true }));
  },
  refuseConnections: fault('refuseConnections'),
  delayAck: fault('delayAck', 'ms'),
  swallowAck: fault('swallowAck'),
  loseAnswer(service, body) {
    checkDrop(body);
    fault('loseAnswer', 'how', 'downMs')(service, body);
  },
  answerWrong: fault('answerWrong', 'answer', 'alsoRun'),
  answerConfig: fault('answerConfig', 'status', 'json', 'text'),
  refuseEntry: fault('refuseEntry', 'how', 'errorCode'),
  offerCodecs(service, body) {
    const { codecs } = body;
    if (!Array.isArray(codecs) || !codecs.every((codec) => VIDEO_CODECS.includes(codec)))
      throw new HttpError(400, `"codecs" must be a list out of ${VIDEO_CODECS.join(', ')}`);
    fault('offerCodecs', 'codecs')(service, body);
  },
  clearFaults({ faults, fastws }) {
    faults.clear();
    for (const { flow } of fastws.connections()) flow.resume();
  },
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
  pauseConsumer: (service, body, { peer, consumer }) => peer().media.pauseConsumer(consumer()),
  resumeConsumer: (service, body, { peer, consumer }) => peer().media.resumeConsumer(consumer()),
  pauseBySubManager: (service, { reason = '' }, { peer, consumer }) =>
    peer().media.pauseByManager(consumer(), reason),
  resumeBySubManager: (service, { reason = '' }, { peer, consumer }) =>
    peer().media.resumeByManager(consumer(), reason),
  pauseProducer: (service, body, { producer }) => producer().pause(),
  resumeProducer: (service, body, { producer }) => producer().resume(),
  closeProducer: (service, body, { producer }) => producer().close(),
  changeMode(service, body, { peer, mode }) {
    const changed = peer();
    changed.room.changeMode(changed, mode());
  },
  switchRoom({ rooms }, { toRoomId }, { connected, mode }) {
    if (!isId(toRoomId)) throw new HttpError(400, '"toRoomId" must be a meeting id');
    const peer = connected();
    const { moderator, secret } = peer;
    rooms.open(toRoomId).take(peer, { mode: mode(peer.mode), moderator, secret });
  },
  removePeer(service, { code = LEFT.removed }, { room, peer }) {
    room().remove(peer(), code, { told: true });
  },
  closeRoom(service, { code = LEFT.roomClosed }, { room }) {
    room().close(code);
  },
  ...characterActions,
  ...observabilityActions,
  ...realtimeActions,
  ...relayActions,
  ...serviceActions,
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
    const afterAnswer = (fn) => {
      response.setHeader('connection', 'close');
      request.socket.once('close', fn);
    };
    const result = await action(service, body, { ...targets(service, body), afterAnswer });
    sendJson(response, 200, { ok: true, ...result });
  };
}
