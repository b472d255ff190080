import * as read from '../read.mjs';
import { RequestError } from '../refusal.mjs';

function other(room, data) {
  const peer = room.peers.get(read.id(data, 'peerId'));
  if (!peer?.joined) throw new RequestError(404, 'no such participant');
  return peer;
}

// Asks one participant to switch its microphone or camera; nothing changes here.
const ask =
  (method) =>
  ({ room, peer, data, after }) => {
    const asked = other(room, data);
    after(() => asked.notify(method, { peerId: asked.id, byPeerId: peer.id }));
  };

function pinStateChanged({ room, peer, data, after }) {
  const pinned = room.relays.guests.get(data.peerId) ?? other(room, data);
  const state = read.object(data, 'state');
  const pin = { cam: read.flag(state, 'cam'), share: read.flag(state, 'share') };
  after(() =>
    room.broadcast('pinStateChanged', { peerId: pinned.id, state: pin, pinnedBy: peer.id }),
  );
}

export const meetingRequests = {
  enablePeerMic: { needs: 'join', moderator: true, run: ask('enableMic') },
  disablePeerMic: { needs: 'join', moderator: true, run: ask('disableMic') },
  enablePeerWebcam: { needs: 'join', moderator: true, run: ask('enableWebcam') },
  disablePeerWebcam: { needs: 'join', moderator: true, run: ask('disableWebcam') },
  pinStateChanged: { needs: 'join', run: pinStateChanged },
};
