import { checkMs, fault } from './control-parts.mjs';
import { HttpError } from './http.mjs';
import { isObject } from './read.mjs';
import { SERVICES } from './services/table.mjs';

const MOMENTS = ['running', 'start', 'stop'];
const WHITEBOARD_EVENTS = ['whiteboardStarted', 'whiteboardStopped'];

function checkOneOf(value, key, choices) {
  if (!choices.includes(value))
    throw new HttpError(400, `"${key}" must be one of ${choices.join(', ')}`);
}

function checkText(value, key) {
  if (typeof value !== 'string') throw new HttpError(400, `"${key}" must be a text`);
}

function checkNumber(value, key) {
  if (!Number.isInteger(value)) throw new HttpError(400, `"${key}" must be a whole number`);
}

const checkService = (name) => checkOneOf(name, 'service', Object.keys(SERVICES));

/** Sets a time for what the body names; what is under way is reckoned anew by it. */
function setTempo({ rooms }, tempo, { roomId, service, ms }) {
  if (roomId !== undefined) checkText(roomId, 'roomId');
  if (ms !== undefined) checkMs(ms, 'ms');
  tempo.set({ roomId, service }, ms);
  for (const room of rooms.all()) room.services.retime();
}

function failService(service, body, { room }) {
  const { service: name, at = 'running', errorCode } = body;
  checkService(name);
  checkOneOf(at, 'at', MOMENTS);
  if (errorCode !== undefined) checkNumber(errorCode, 'errorCode');
  if (at !== 'running') return fault('failService', 'errorCode')(service, body);
  const failing = room().services.find(name);
  if (failing.status !== 'STARTED') throw new HttpError(409, `${failing.row.label} does not run`);
  failing.fail('running', errorCode);
}

// Nothing changes here, and nothing is checked: the event may be as odd as a test wants it.
function setServiceState(service, body, { room }) {
  const { roomId, service: name, ...data } = body;
  checkService(name);
  if (name === 'whiteboard') {
    const { status, ...rest } = data;
    checkOneOf(status, 'status', WHITEBOARD_EVENTS);
    return room().broadcast(status, rest);
  }
  const playable = name === 'hls' && 'isPlayable' in data;
  room().broadcast(playable ? 'hlsPlayableStateChanged' : SERVICES[name].stateEvent, data);
}

function transcribe(service, body, { room }) {
  const { text, participantId, participantName } = body;
  checkText(text, 'text');
  for (const key of ['participantId', 'participantName'])
    if (body[key] !== undefined) checkText(body[key], key);
  const { services } = room();
  const speaker = participantId ?? services.voices.next()?.id;
  if (speaker === undefined)
    throw new HttpError(409, 'nobody publishes sound: "participantId" must say who speaks');
  services.voices.say({ participantId: speaker, participantName, text });
}

function refuseRequest(service, body) {
  const { method, errorCode, message } = body;
  checkText(method, 'method');
  if (errorCode !== undefined) checkNumber(errorCode, 'errorCode');
  if (message !== undefined) checkText(message, 'message');
  fault('refuseRequest', 'errorCode', 'message')(service, body);
}

function agentMetrics(service, { peerId, metrics }, { room }) {
  checkText(peerId, 'peerId');
  if (!isObject(metrics)) throw new HttpError(400, '"metrics" must be an object');
  room().broadcast('agentMetrics', { peerId, ...metrics });
}

// Events of agents go for any id, so that what comes of those for others can be seen.
const agentActions = {
  agentState(service, { peerId, state }, { room }) {
    checkText(peerId, 'peerId');
    room().broadcast('agentStateChanged', { peerId, state });
  },
  agentTranscript(service, { peerId, text, timestamp = Date.now() }, { room }) {
    checkText(peerId, 'peerId');
    room().broadcast('agentTranscript', { peerId, text, timestamp });
  },
  agentMetrics,
};

export const serviceActions = {
  setServiceDelay(service, body) {
    if (body.service !== undefined) checkService(body.service);
    setTempo(service, service.tempo.delays, body);
  },
  setTranscriptionPace(service, { roomId, ms }) {
    setTempo(service, service.tempo.pace, { roomId, ms });
  },
  failService,
  setServiceState,
  transcribe,
  refuseRequest,
  ...agentActions,
};
