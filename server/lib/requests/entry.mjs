import * as read from '../read.mjs';
import { RequestError } from '../refusal.mjs';
import { LEFT } from '../room.mjs';
import { checkAccess } from '../tokens.mjs';

const DECISIONS = ['allowed', 'denied'];
const LEAVE_REASONS = { MANUAL_LEAVE_CALLED: LEFT.manual };

function requestEntry({ room, peer, data, faults, after }) {
  const name = read.text(data, 'name');
  const fault = faults.take('refuseEntry', { roomId: room.id, peerId: peer.id });
  if (fault?.how === 'answer')
    throw new RequestError(fault.errorCode ?? 403, 'the entry is refused');
  if (fault) peer.entry = 'denied';
  else if (peer.entry !== 'allowed') peer.entry = peer.mayEnter ? 'allowed' : 'asked';
  after(() => {
    if (peer.entry === 'asked') return room.askEntry(peer, name);
    peer.notify('entryResponded', { id: peer.id, decision: peer.entry, sessionId: room.sessionId });
  });
}

function respondEntry({ room, peer, data }) {
  const asker = read.id(data, 'id');
  const decision = read.oneOf(data, 'decision', DECISIONS);
  if (!room.answerEntry(peer, asker, decision))
    throw new RequestError(404, 'nobody by this id asks to enter');
}

// Where the participant's topic WebSocket is, unless it is not to have one.
function pubSubUrl({ room, peer, faults, fastws, options }) {
  const url = fastws.admit(peer);
  const fault = faults.take('setPubSubUrl', { roomId: room.id, peerId: peer.id });
  const wanted = fault ? fault.url : options.pubsubUrl === 'on';
  if (wanted === false) return {};
  return { pubSubUrl: wanted === true ? url : wanted };
}

function join(context) {
  const { room, peer, data, secret, after } = context;
  if (peer.joined) throw new RequestError(409, 'already joined');
  const switching = read.flag(data, 'switchingRoom');
  if (switching !== peer.switching)
    throw new RequestError(409, `${switching ? 'no' : 'a'} switch to this meeting is under way`);
  if (room.characters.has(peer.id)) throw new RequestError(409, 'a character has this id');
  const displayName = read.text(data, 'displayName');
  const device = read.text(data, 'device');
  const mode = read.oneOf(data, 'mode', read.MODES);
  const metaData = read.object(data, 'metaData');
  const rtpCapabilities = read.object(data, 'rtpCapabilities');
  const batching = read.flag(data, 'batchingEnabled');
  if (data.secret !== peer.secret)
    checkAccess(secret, data.secret, { roomId: room.id, peerId: peer.id });

  Object.assign(peer, { displayName, device, mode, metaData, switching: false });
  if (switching) peer.setMode(mode);
  peer.media.rtpCapabilities = rtpCapabilities;
  peer.outbox.batching = batching;
  const unsupportedCodecs = room.unsupportedCodecs();
  // One who is just coming back is in the meeting all the time.
  const present = [...room.peers.values()].filter((other) => other.announced && other !== peer);
  const others = [...present, ...room.relays.guests.values()];
  peer.joined = true;
  room.topics.forget(peer);
  // One who comes back within the grace time never left for the others.
  if (!peer.announced) room.broadcast('newPeer', peer.describe(), peer);
  peer.announced = true;
  after(async () => {
    room.services.tell(peer);
    if (peer.moderator) {
      for (const [id, { name }] of room.entryRequests) peer.notify('entryRequested', { id, name });
    }
    room.events.emit('joined', peer);
    room.characters.welcome(peer);
    await room.receive(peer);
    if (switching) await room.publishAll(peer);
  });
  const peers = others.map((other) => other.describe());
  return { peers, unsupportedCodecs, ...pubSubUrl(context) };
}

// The answer says that it was asked; where the participant is let in comes as "entryResponded".
function switchToMeeting({ peer, data, secret, faults, rooms, after }) {
  const roomId = read.id(data, 'meetingId');
  const mode = read.oneOf(data, 'mode', read.MODES);
  if (read.id(data, 'participantId') !== peer.id)
    throw new RequestError(400, '"participantId" must be the one that is connected');
  const token = read.text(data, 'secret') || peer.secret;
  const { permissions } = checkAccess(secret, token, { roomId, peerId: peer.id });
  const fault = faults.take('refuseEntry', { roomId, peerId: peer.id });
  if (fault?.how === 'answer')
    throw new RequestError(fault.errorCode ?? 403, 'the switch is refused');
  const move = { mode, moderator: permissions.includes('allow_mod'), secret: token };
  after(() => {
    peer.asks?.forget(peer);
    if (fault) {
      const { sessionId } = rooms.find(roomId) ?? peer.room;
      return peer.notify('entryResponded', { id: peer.id, decision: 'denied', sessionId });
    }
    const target = rooms.open(roomId);
    if (permissions.includes('ask_join') && target !== peer.room)
      return target.askEntry(peer, peer.displayName, move);
    target.take(peer, move);
  });
}

function definePeerLeftReason({ peer, data }) {
  peer.leaveCode = LEAVE_REASONS[read.text(data, 'leaveReason')] ?? LEFT.unknown;
}

function closeRoom({ room, after }) {
  after(() => room.close(LEFT.roomClosed));
}

function removePeer({ room, data, after }) {
  const id = read.id(data, 'peerId');
  const guest = room.relays.guests.get(id);
  if (guest) return after(() => guest.hide());
  const gone = room.peers.get(id);
  if (!gone) throw new RequestError(404, 'no such participant');
  after(() => room.remove(gone, LEFT.removed, { told: true }));
}

export const entryRequests = {
  requestEntry: { run: requestEntry },
  definePeerLeftReason: { run: definePeerLeftReason },
  join: { needs: 'entry', run: join },
  switchToMeeting: { needs: 'join', run: switchToMeeting },
  respondEntry: { needs: 'join', moderator: true, run: respondEntry },
  closeRoom: { needs: 'join', moderator: true, run: closeRoom },
  removePeer: { needs: 'join', moderator: true, run: removePeer },
};
