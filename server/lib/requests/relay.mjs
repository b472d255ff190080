import * as read from '../read.mjs';
import { RequestError } from '../refusal.mjs';
import { Relay, RELAY_KINDS } from '../relay/relay.mjs';
import { checkAccess } from '../tokens.mjs';

const DECISIONS = ['accepted', 'rejected'];

function kindsOf({ kinds }) {
  if (kinds === undefined || kinds === null) return RELAY_KINDS;
  if (!Array.isArray(kinds) || kinds.length === 0 || !kinds.every((k) => RELAY_KINDS.includes(k)))
    throw new RequestError(400, `"kinds" must be a list out of ${RELAY_KINDS.join(', ')}`);
  return kinds;
}

// The connection's own token will do when it is good there too.
const tokenOf = (peer, data) => (data.token ? read.text(data, 'token') : peer.secret);

function mediaRelayRequestSent({ room, peer, data, secret, rooms, after }) {
  const roomId = read.id(data, 'meetingId');
  const kinds = kindsOf(data);
  if (roomId === room.id) throw new RequestError(400, 'a meeting is not relayed to itself');
  checkAccess(secret, tokenOf(peer, data), { roomId, peerId: peer.id });
  const to = rooms.find(roomId);
  if (!to) throw new RequestError(404, 'no such meeting');
  if (room.relays.sent.has(roomId))
    throw new RequestError(409, 'the relay is asked for already, or running');
  const relay = new Relay({ from: room, to, asker: peer, kinds, log: peer.settings.log });
  after(() => relay.ask());
}

const running = (relay) => {
  if (!relay?.running) throw new RequestError(404, 'no such relay is running');
  return relay;
};

function respondToMediaRelayRequest({ room, peer, data, after }) {
  const asker = read.id(data, 'peerId');
  const relay = room.relays.received.get(read.id(data, 'meetingId'));
  const decision = read.oneOf(data, 'decision', DECISIONS);
  if (relay?.state !== 'asked' || relay.asker.id !== asker)
    throw new RequestError(404, 'nobody asks for that');
  after(() => relay.answer(decision, peer.id));
}

// Whoever is in the meeting may stop what it sends, its moderators what it receives.
function mediaRelayRequestStop({ room, peer, data, after }) {
  const { sent, received } = room.relays;
  const meetingId = read.id(data, 'meetingId');
  const own = sent.get(meetingId);
  const relay = own ?? running(received.get(meetingId));
  if (!own && !peer.moderator) throw new RequestError(403, 'the token lacks allow_mod');
  after(() => relay.stop());
}

const change =
  (action) =>
  ({ room, data, after }) => {
    const relay = running(room.relays.sent.get(read.id(data, 'meetingId')));
    const kind = read.oneOf(data, 'kind', RELAY_KINDS);
    after(() => relay[action](kind));
  };

export const relayRequests = {
  mediaRelayRequestSent: { needs: 'join', run: mediaRelayRequestSent },
  respondToMediaRelayRequest: { needs: 'join', moderator: true, run: respondToMediaRelayRequest },
  mediaRelayRequestStop: { needs: 'join', run: mediaRelayRequestStop },
  enableRelayMedia: { needs: 'join', run: change('enable') },
  disableRelayMedia: { needs: 'join', run: change('disable') },
};
