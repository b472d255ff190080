import { isObject } from './read.mjs';
import { Refusal, RequestError } from './refusal.mjs';
import { characterRequests } from './requests/characters.mjs';
import { entryRequests } from './requests/entry.mjs';
import { mediaRequests } from './requests/media.mjs';
import { meetingRequests } from './requests/meeting.mjs';
import { realtimeRequests } from './requests/realtime.mjs';
import { relayRequests } from './requests/relay.mjs';
import { serviceRequests } from './requests/services.mjs';

// method -> { needs: 'entry' | 'join', moderator, run(context) }. What `run` gives goes into the
// answer; what it passes to `after` runs once the answer is on its way.
const METHODS = new Map(
  Object.entries({
    ...characterRequests,
    ...entryRequests,
    ...mediaRequests,
    ...meetingRequests,
    ...realtimeRequests,
    ...relayRequests,
    ...serviceRequests,
  }),
);

function check(peer, row) {
  if (row.needs && peer.entry !== 'allowed')
    throw new RequestError(403, 'the entry is not allowed yet');
  if (row.needs === 'join' && !peer.joined) throw new RequestError(409, 'not joined');
  if (row.moderator && !peer.moderator) throw new RequestError(403, 'the token lacks allow_mod');
}

function failure(error, log, method) {
  if (error instanceof RequestError || error instanceof Refusal) {
    return { status: 'error', errorCode: error.code, message: error.message };
  }
  // The media library checks parameters itself and throws its own kinds of error.
  log.debug('a request failed', { method, error: error.stack });
  return { status: 'error', errorCode: 400, message: `${error.message}`.slice(0, 500) };
}

/** Runs one request; gives the answer and what is to run after it. Never throws. */
export async function runRequest(envelope, { room, peer, service }) {
  const afters = [];
  try {
    if (!isObject(envelope)) throw new RequestError(400, 'a request is an object');
    const { method, data = {} } = envelope;
    const row = METHODS.get(method);
    if (!row) throw new RequestError(501, `no such request: ${String(method).slice(0, 100)}`);
    if (!peer.isIn(envelope.roomId, method))
      throw new RequestError(403, '"roomId" must name the meeting in which the participant is');
    if (!isObject(data)) throw new RequestError(400, '"data" must be an object');
    check(peer, row);
    const { secret, faults, rooms, fastws, options } = service;
    const direction = peer.media.directionOf(data);
    const refused = faults.take('refuseRequest', {
      roomId: room.id,
      peerId: peer.id,
      method,
      direction,
    });
    if (refused)
      throw new RequestError(refused.errorCode ?? 403, refused.message ?? 'refused on demand');
    const extra = await row.run({
      room,
      peer,
      data,
      secret,
      faults,
      rooms,
      fastws,
      options,
      after: (fn) => afters.push(fn),
    });
    return { answer: { data: { status: 'ok', ...extra } }, afters };
  } catch (error) {
    return { answer: { data: failure(error, service.log, envelope?.method) }, afters: [] };
  }
}
