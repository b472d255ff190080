import { RequestError } from '../refusal.mjs';

/**
 * The services of a meeting, with their texts:
 * - `label` in messages, `prefix` of the texts of its states;
 * - `events(service)`: what tells its present state;
 * - `plain`: the event beside that of a state;
 * - `playable(service)`: what follows the start, after the same time again;
 * - `busy(service)`: the number for a request at a time when it has to wait, if there is one;
 * - `failed`: the number of the "error" event, by when it fails.
 */
const row = (label, prefix, stateEvent, more) => ({
  label,
  prefix,
  stateEvent,
  events: ({ text }) => [[stateEvent, { status: text }]],
  busy: () => undefined,
  ...more,
});

const always = (code) => ({ start: code, running: code, stop: code });
const whileStopping =
  (code) =>
  ({ status }, method) =>
    method === 'start' && status === 'STOPPING' ? code : undefined;

const hlsPlayable = ({ urls }) => ['hlsPlayableStateChanged', { isPlayable: true, ...urls }];

function hlsEvents({ status, text, urls, playable }) {
  const shown = status === 'STARTED' ? urls : {};
  const state = ['hlsStateChanged', { status: playable ? 'HLS_STARTED' : text, ...shown }];
  return playable ? [state, hlsPlayable({ urls })] : [state];
}

function whiteboardEvents({ status, urls }) {
  if (status === 'STARTED') return [['whiteboardStarted', urls]];
  return status === 'STOPPED' ? [['whiteboardStopped', {}]] : [];
}

export const SERVICES = {
  recording: row('the recording', 'RECORDING', 'recordingStateChanged', {
    plain: { STARTED: 'recordingStarted', STOPPED: 'recordingStopped' },
    busy: whileStopping(4018),
    failed: always(5001),
  }),
  livestream: row('the livestream', 'LIVESTREAM', 'livestreamStateChanged', {
    plain: { STARTED: 'livestreamStarted', STOPPED: 'livestreamStopped' },
    busy: whileStopping(4019),
    failed: always(5002),
  }),
  hls: row('HLS', 'HLS', 'hlsStateChanged', {
    events: hlsEvents,
    playable: hlsPlayable,
    busy: whileStopping(4020),
    failed: always(5003),
    pages: {
      downstreamUrl: 'downstream.m3u8',
      playbackHlsUrl: 'playback.m3u8',
      livestreamUrl: 'live.m3u8',
    },
  }),
  transcription: row('the transcription', 'TRANSCRIPTION', 'transcriptionStateChanged', {
    failed: always(5007),
  }),
  whiteboard: row('the whiteboard', 'WHITEBOARD', undefined, {
    events: whiteboardEvents,
    busy: ({ status }) => (['STARTING', 'STOPPING'].includes(status) ? 4056 : undefined),
    failed: { start: 4054, running: 5000, stop: 4055 },
    pages: { url: 'board.html' },
  }),
};

const MOMENTS = {
  STARTING: 'is starting already',
  STARTED: 'runs already',
  STOPPING: 'is stopping',
  STOPPED: 'does not run',
};

/** Throws unless the service can `method` ("start" or "stop") now. */
export function checkMoment(service, method) {
  const { row, status } = service;
  const fits =
    method === 'start' ? status === 'STOPPED' : ['STARTING', 'STARTED'].includes(status);
  const busy = row.busy(service, method);
  if (busy || !fits) throw new RequestError(busy ?? 409, `${row.label} ${MOMENTS[status]}`);
}
