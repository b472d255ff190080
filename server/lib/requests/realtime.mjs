import * as read from '../read.mjs';
import { RequestError } from '../refusal.mjs';

const isTexts = (value) => Array.isArray(value) && value.every((one) => typeof one === 'string');

// A half of a surrogate pair, which JSON can carry, has no form in the frames of the other route.
const words = (data, key) => read.text(data, key, Infinity).toWellFormed();

function topicOf(room, data) {
  return room.topics.open(words(data, 'topic'));
}

function pubsubPublish({ room, peer, data }) {
  const message = words(data, 'message');
  const payload = read.object(data, 'payload');
  const { persist = false, sendOnly = [] } = read.object(data, 'options');
  if (typeof persist !== 'boolean') throw new RequestError(400, '"persist" must be a Boolean');
  if (!isTexts(sendOnly)) throw new RequestError(400, '"sendOnly" must be a list of texts');
  const published = topicOf(room, data).publish({
    message,
    payload: Buffer.from(Object.keys(payload).length > 0 ? JSON.stringify(payload) : ''),
    timestamp: new Date().toISOString(),
    senderId: peer.id,
    senderName: peer.displayName.toWellFormed(),
    sendOnly: sendOnly.map((one) => one.toWellFormed()),
    persist,
  });
  return { messageId: published.messageId };
}

function pubsubSubscribe({ room, peer, data }) {
  const topic = topicOf(room, data);
  topic.peers.add(peer);
  return { messages: topic.signalledHistory(peer.id) };
}

// The client has one table of listeners and says only once that a topic has none any more.
function pubsubUnsubscribe({ room, peer, data, fastws }) {
  const topic = words(data, 'topic');
  room.topics.find(topic)?.peers.delete(peer);
  fastws.connection(peer)?.operations.unsubscribe({ topic });
}

function realtimeStoreSet({ room: { store }, peer, data, after }) {
  const { key, value } = data;
  store.checkKey(key);
  store.checkValue(value);
  store.set(key, value);
  after(() => store.announce(key, value, peer.id));
}

const realtimeStoreGet = ({ room: { store }, data }) => ({ value: store.get(data.key) });
const realtimeStoreObserve = ({ room: { store }, peer, data }) => store.observe(data.key, peer);
const realtimeStoreStopObserve = ({ room: { store }, peer, data }) =>
  store.stopObserving(data.key, peer);

const joined = (run) => ({ needs: 'join', run });

export const realtimeRequests = {
  pubsubPublish: joined(pubsubPublish),
  pubsubSubscribe: joined(pubsubSubscribe),
  pubsubUnsubscribe: joined(pubsubUnsubscribe),
  realtimeStoreSet: joined(realtimeStoreSet),
  realtimeStoreGet: joined(realtimeStoreGet),
  realtimeStoreObserve: joined(realtimeStoreObserve),
  realtimeStoreStopObserve: joined(realtimeStoreStopObserve),
};
