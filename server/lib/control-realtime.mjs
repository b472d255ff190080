import { checkCount, checkMs, fault, need } from './control-parts.mjs';
import { envelopeFrom } from './fastws/codec.mjs';
import { OPERATIONS } from './fastws/operations.mjs';
import { HttpError } from './http.mjs';
import { isObject } from './read.mjs';
import { RequestError } from './refusal.mjs';

const FRAMES = ['lost', 'held'];
const DROPS = ['terminate', 'close'];
const MOST_AT_ONCE = 100_000;
const MOST_SKIPPED = 1_000_000_000;

/** The connections that a body names: of one participant, of a meeting, or all. */
function connections({ fastws, rooms }, { roomId, peerId }) {
  const all = fastws.connections();
  if (roomId === undefined) return all;
  const room = need(rooms.find(roomId), 'meeting');
  if (peerId === undefined) return all.filter((connection) => connection.room === room);
  const connection = fastws.connection(need(room.peers.get(peerId), 'participant'));
  if (!connection) throw new HttpError(409, 'the participant has no pubsub connection');
  return [connection];
}

function one(service, body) {
  need(body.peerId, 'participant');
  need(body.roomId, 'meeting');
  return connections(service, body)[0];
}

function checkOneOf(value, key, choices) {
  if (!choices.includes(value))
    throw new HttpError(400, `"${key}" must be one of ${choices.join(', ')}`);
}

// As the store and the topics refuse it, in the words of HTTP.
function checked(run) {
  try {
    return run();
  } catch (error) {
    throw error instanceof RequestError ? new HttpError(error.code, error.message) : error;
  }
}

const ackFault =
  (kind, ...keys) =>
  (service, body) => {
    if (body.op !== undefined) checkOneOf(body.op, 'op', OPERATIONS);
    if (keys.includes('ms')) checkMs(body.ms, 'ms');
    fault(kind, ...keys)(service, body);
  };

function refuseConnections(service, body) {
  const { status = 503 } = body;
  if (!Number.isInteger(status) || status < 400 || status > 599)
    throw new HttpError(400, '"status" must be from 400 to 599');
  fault('refusePubSubConnections', 'status')(service, body);
}

const isCloseCode = (code) =>
  Number.isInteger(code) &&
  ((code >= 1000 && code <= 1014 && ![1004, 1005, 1006].includes(code)) ||
    (code >= 3000 && code <= 4999));

function dropPubSub(service, body) {
  const { roomId, peerId, how = 'terminate', code = 1001, downMs = 0, status } = body;
  checkOneOf(how, 'how', DROPS);
  checkMs(downMs, 'downMs');
  if (!isCloseCode(code)) throw new HttpError(400, '"code" must be a close code');
  const dropped = connections(service, body);
  if (downMs > 0) refuseConnections(service, { roomId, peerId, status, forMs: downMs });
  for (const connection of dropped)
    if (how === 'terminate') connection.terminate();
    else connection.close(code, 'dropped by the control endpoint');
}

function silencePubSub(service, body) {
  const { frames = 'lost', ms, next = false } = body;
  checkOneOf(frames, 'frames', FRAMES);
  if (ms !== undefined) checkMs(ms, 'ms');
  if (next) return fault('silencePubSub', 'frames', 'ms')(service, { ...body, frames });
  for (const { flow } of connections(service, body)) flow.silence(frames, ms);
}

function slowPubSub(service, body) {
  const { ms } = body;
  if (ms !== undefined) checkMs(ms, 'ms');
  for (const { flow } of connections(service, body)) flow.slowDown(ms);
}

function sendPubSubFrame(service, body) {
  const { raw, text, envelope } = body;
  const { flow } = one(service, body);
  if (typeof raw === 'string') return flow.write(Buffer.from(raw, 'base64'));
  if (typeof text === 'string') return flow.write(text);
  if (!isObject(envelope))
    throw new HttpError(400, '"raw" (base64), "text" or "envelope" must be there');
  try {
    flow.write(envelopeFrom(envelope));
  } catch (error) {
    throw new HttpError(400, error.message);
  }
}

function publishedBy({ senderId = 'service', senderName = '', timestamp, ...body }) {
  const { message = '', payload = {}, persist = false, sendOnly = [], messageId } = body;
  const texts = [message, senderId, senderName, ...(Array.isArray(sendOnly) ? sendOnly : [0])];
  if (!texts.every((one) => typeof one === 'string') || !isObject(payload))
    throw new HttpError(400, 'a text, "sendOnly" or "payload" is of another type');
  return {
    message,
    payload: Buffer.from(Object.keys(payload).length > 0 ? JSON.stringify(payload) : ''),
    timestamp: timestamp ?? new Date().toISOString(),
    senderId,
    senderName,
    sendOnly,
    persist: persist === true,
    messageId,
  };
}

const topicOf = (room, { topic }) => {
  if (typeof topic !== 'string') throw new HttpError(400, '"topic" must be a text');
  return checked(() => room.topics.open(topic));
};

export const realtimeActions = {
  dropPubSub,
  refusePubSubConnections: refuseConnections,
  silencePubSub,
  slowPubSub,
  resumePubSub(service, body) {
    for (const { flow } of connections(service, body)) flow.resume();
  },
  holdReplay(service, body) {
    if (body.ms !== undefined) checkMs(body.ms, 'ms');
    fault('holdReplay', 'ms')(service, body);
  },
  delayPubSubAck: ackFault('delayPubSubAck', 'ms'),
  swallowPubSubAck: ackFault('swallowPubSubAck'),
  refusePubSub: ackFault('refusePubSub', 'error'),
  sendPubSubFrame,
  skipSequence(service, body, { room }) {
    const { by = 1 } = body;
    checkCount(by, 'by');
    if (by > MOST_SKIPPED) throw new HttpError(400, `"by" is at most ${MOST_SKIPPED}`);
    const topic = topicOf(room(), body);
    topic.sequence += by;
    return { sequence: topic.sequence };
  },
  publish(service, body, { room }) {
    const { times = 1 } = body;
    checkCount(times, 'times');
    if (times > MOST_AT_ONCE) throw new HttpError(400, `"times" is at most ${MOST_AT_ONCE}`);
    const message = publishedBy(body);
    const topic = topicOf(room(), body);
    let last;
    for (let i = 0; i < times; i += 1) last = topic.publish(message);
    return { messageId: last.messageId, sequence: topic.sequence };
  },
  setPubSubUrl(service, body) {
    if (body.url === undefined) throw new HttpError(400, '"url" must be there');
    fault('setPubSubUrl', 'url')(service, body);
  },
  setStoreValue(service, { key, value = null, updatedBy = 'service' }, { room }) {
    const { store } = room();
    checked(() => store.set(key, value));
    store.announce(key, value, updatedBy);
  },
};
