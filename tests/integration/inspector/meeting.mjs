// A meeting of two minutes in which much goes wrong. Times are in seconds from its beginning.
const SECOND = 1000;
const LENGTH = 116;
const BOTTLENECK = { from: 46, congested: 52, relieved: 71, to: 79 };
const FREEZE = { from: 58, again: 63, to: 70 };
const AWAY = { from: 8, to: 13.4 };
const ALAN_LEAVES = 96;

/** The same numbers in every run, and no two alike. */
function noise(seed) {
  let state = seed;
  return (spread) => {
    state = (state * 1103515245 + 12345) % 2 ** 31;
    return (state / 2 ** 30 - 1) * spread;
  };
}

const between = (t, from, to) => t >= from && t < to;
/** 0 outside, 1 inside, and a slope of some seconds at both ends. */
const hump = (t, from, to, slope = 4) => Math.max(0, Math.min(1, (t - from) / slope, (to - t) / slope));
const round = (value, digits = 0) => Number(Math.max(0, value).toFixed(digits));

const video = { kind: 'video', state: 'ACTIVE', codec: 'video/VP8' };
const audio = { kind: 'audio', state: 'ACTIVE', codec: 'audio/opus' };
export const PEOPLE = [
  { id: 'p-ada', name: 'Ada', local: true, joins: 1.9, streams: [['ada-v', video, 15], ['ada-a', audio, 15.5]] },
  { id: 'p-grace', name: 'Grace', local: false, joins: 16, streams: [['grace-v', video, 17.4], ['grace-a', audio, 16.8]] },
  { id: 'p-alan', name: 'Alan', local: false, joins: 24, leaves: ALAN_LEAVES, streams: [['alan-v', video, 25.1], ['alan-a', audio, 24.9]] },
];

const sampleOf = {
  'ada-v'(t, about) {
    const narrow = hump(t, BOTTLENECK.from, BOTTLENECK.to, 6);
    const queue = hump(t, BOTTLENECK.congested - 3, BOTTLENECK.relieved + 3, 5);
    const small = narrow > 0.6;
    const [width, height] = small ? [640, 360] : [1280, 720];
    const ramp = Math.min(1, (t - 14) / 7);
    return [
      ...[round((1650 - 1330 * narrow) * ramp + about(70)), round(30 - 17 * queue + about(1)), width, height],
      ...[round(42 + 360 * queue + about(9)), round(6.4 * queue + about(0.3), 1), round(9 + 24 * queue + about(2)), null, null],
    ];
  },
  'ada-a'(t, about) {
    const queue = hump(t, BOTTLENECK.congested - 3, BOTTLENECK.relieved + 3, 5);
    const speaks = between(t % 31, 4, 19);
    return [round(speaks ? 39 + about(5) : 12 + about(4)), null, null, null, round(41 + 350 * queue + about(8)), round(4.1 * queue + about(0.2), 1), round(7 + 15 * queue + about(2)), round(speaks ? 0.42 + about(0.25) : 0.02, 2), null];
  },
  'grace-v'(t, about) {
    const stopped = between(t, FREEZE.from - 2, FREEZE.to - 4) ? 1 : 0;
    const count = (t >= FREEZE.from ? 1 : 0) + (t >= FREEZE.again ? 1 : 0);
    const rate = stopped ? 60 + about(40) : 1240 + about(110);
    return [round(rate), round(stopped ? 1.5 + about(1.5) : 29 + about(1.4)), 1280, 720, null, round(stopped ? 9 + about(4) : about(0.4), 1), round(stopped ? 96 + about(30) : 12 + about(4)), null, count];
  },
  'grace-a'(t, about) {
    const strained = between(t, FREEZE.from - 2, FREEZE.to - 4);
    const speaks = !between(t % 31, 2, 20);
    return [round(speaks ? 38 + about(6) : 14 + about(3)), null, null, null, null, round(strained ? 5 + about(2) : about(0.3), 1), round(strained ? 62 + about(14) : 8 + about(2)), round(speaks ? 0.4 + about(0.2) : 0.01, 2), null];
  },
  'alan-v': (t, about) => [round(480 + about(60)), round(24 + about(1)), 640, 360, null, round(about(0.5), 1), round(18 + about(6)), null, 0],
  'alan-a': (t, about) => [round(30 + about(8)), null, null, null, null, round(about(0.4), 1), round(14 + about(4)), round(0.15 + about(0.15), 2), null],
};

function* people() {
  for (const { streams, joins, leaves = null, ...person } of PEOPLE) {
    const whole = { ...person, mode: 'SEND_AND_RECV', joinedAt: joins, leftAt: null };
    yield [joins, 'participant', whole];
    if (!person.local) yield [joins, 'mark', { kind: 'participant', text: 'joined', participantId: person.id }];
    for (const [id, what, startedAt] of streams) {
      const stream = { id, ...what, startedAt, endedAt: null };
      yield [startedAt, 'stream', { participantId: person.id, stream }];
      if (leaves) yield [leaves, 'stream', { participantId: person.id, stream: { ...stream, endedAt: leaves, state: 'ENDED' } }];
    }
    if (!leaves) continue;
    yield [leaves, 'participant', { ...whole, leftAt: leaves }];
    yield [leaves, 'mark', { kind: 'participant', text: 'left', participantId: person.id }];
  }
}

function* samples() {
  const sources = PEOPLE.flatMap(({ streams, leaves = Infinity }) =>
    streams.map(([id, , begins], at) => ({ id, begins, leaves, about: noise(id.length * 7919 + at * 31) })));
  for (let t = 15; t <= LENGTH; t += 1) {
    const there = sources.filter(({ begins, leaves }) => between(t, begins, leaves));
    const streams = Object.fromEntries(there.map(({ id, about }) => [id, sampleOf[id](t, about)]));
    yield [t + 0.2, 'samples', { streams }];
  }
}

function* states() {
  const meetingState = (t, state) => [
    [t, 'meeting', { id: 'kqx3-m8vt-2pca', localParticipantId: 'p-ada', name: 'Planning', state }],
    [t, 'mark', { kind: 'state', text: state }],
  ];
  yield* meetingState(0, 'CONNECTING');
  yield* meetingState(1.2, 'CONNECTED');
  yield* meetingState(AWAY.from, 'RECONNECTING');
  yield* meetingState(AWAY.to, 'CONNECTED');
  const quality = (t, text) => [t, 'mark', { kind: 'quality', text }];
  yield quality(BOTTLENECK.from + 2, 'BANDWIDTH DETECTED');
  yield quality(BOTTLENECK.congested, 'CONGESTION DETECTED');
  yield quality(BOTTLENECK.relieved, 'CONGESTION RESOLVED');
  yield quality(BOTTLENECK.to, 'BANDWIDTH RESOLVED');
  yield quality(103, 'CPU DETECTED');
  yield quality(109, 'CPU RESOLVED');
  const ofGrace = { participantId: 'p-grace', streamId: 'grace-v' };
  yield [FREEZE.from, 'mark', { kind: 'stream', text: 'FREEZE_DETECTED', ...ofGrace }];
  yield [FREEZE.to, 'mark', { kind: 'stream', text: 'FREEZE_RESOLVED', ...ofGrace }];
  for (const [t, state] of [[FREEZE.from, 'FREEZE_DETECTED'], [FREEZE.to, 'FREEZE_RESOLVED']])
    yield [t, 'stream', { participantId: 'p-grace', stream: { id: 'grace-v', ...video, state, startedAt: 17.4, endedAt: null } }];
}

// [parent, name, start, ms or null while it runs, more]
const SPANS = [
  [null, 'Initializing the meeting', 0, 4, { attributes: { meetingId: 'kqx3-m8vt-2pca', mode: 'SEND_AND_RECV' } }],
  [null, 'Joining the meeting', 0.1, 1820, { attributes: { participantName: 'Ada', micEnabled: 'true', webcamEnabled: 'true' } }],
  ['Joining the meeting', 'Looking up the service', 0.11, 212, { category: 'http' }],
  ['Joining the meeting', 'Requesting Entry', 0.4, 540, {}],
  ['Joining the meeting', 'Loading the device', 0.95, 31, { category: 'media' }],
  ['Joining the meeting', 'Creating transports', 1.0, 870, { category: 'media' }],
  [null, 'Reconnecting to the meeting', AWAY.from, 5400, { attributes: { attempt: '2', reason: 'transport close' } }],
  ['Reconnecting to the meeting', 'Opening the socket, attempt 1', 8.1, 2010, { success: false, message: 'Connection refused', attributes: { host: '10.0.0.7', port: '443' } }],
  ['Reconnecting to the meeting', 'Opening the socket, attempt 2', 12.2, 480, {}],
  [null, 'Enabling webcam', 14.2, 780, { attributes: { encoderConfig: 'h720p_w1280p', codec: 'VP8' } }],
  ['Enabling webcam', 'Publishing video', 14.4, 560, { category: 'media', attributes: { layers: 'q, h, f' } }],
  [null, 'Receiving video of Grace', 16.9, 490, { category: 'media', attributes: { peerId: 'p-grace', streamId: 'grace-v' } }],
  [null, 'Receiving video of Alan', 24.6, 1480, { category: 'media', attributes: { peerId: 'p-alan', streamId: 'alan-v' } }],
  [null, 'Setting quality of Grace', 55.3, 3020, { success: false, message: 'The service did not answer within 3 s', attributes: { peerId: 'p-grace', quality: 'high' } }],
  [null, 'Restarting ICE', 60.2, 2240, { category: 'media', attributes: { transport: 'recv', reason: 'no packets for 4 s' } }],
  ['Restarting ICE', 'Asking for new parameters', 60.3, 1630, {}],
  [null, 'Publishing on topic CHAT', 88, 46, { category: 'realtime', attributes: { topic: 'CHAT', bytes: '412' } }],
  [null, 'Starting the recording', 112, null, { attributes: { layout: 'GRID' } }],
  ['Starting the recording', 'Waiting for the service', 112.1, null, {}],
];

// [parent, name, t, more]
const EVENTS = [
  ['Requesting Entry', 'entryResponded', 0.93, { attributes: { decision: 'allowed' } }],
  ['Creating transports', 'Send transport made', 1.4, {}],
  ['Creating transports', 'Receive transport made', 1.8, {}],
  [null, 'Bandwidth Limitation detected', BOTTLENECK.from + 2, { category: 'quality' }],
  [null, 'Network Congestion detected', BOTTLENECK.congested, { category: 'quality', attributes: { avgRoundTripTimeInMs: '231', ewmaRttInMs: '92' } }],
  ['Setting quality of Grace', 'Answer missing', 58.32, { success: false }],
  ['Restarting ICE', 'Candidate pair changed', 62.3, { attributes: { local: 'relay', remote: 'host' } }],
];

const ERRORS = [
  [AWAY.from + 0.2, { code: 3065, text: 'ERROR_MEETING_RECONNECTING' }],
  [58.3, { code: 3015, text: 'ERROR_ACTION_TIMED_OUT', participantId: 'p-grace' }],
];

function* traces(begin) {
  const idOf = (name) => SPANS.findIndex(([, one]) => one === name) + 1;
  const parentId = (parent) => (parent === null ? null : `s${idOf(parent)}`);
  const common = { category: 'signalling', attributes: {} };
  for (const [parent, name, start, durationMs, more] of SPANS) {
    const span = { id: `s${idOf(name)}`, parentId: parentId(parent), name, start: begin + start * SECOND, message: '', ...common, ...more };
    yield [start, 'span', { ...span, message: '', durationMs: null, success: null }];
    if (durationMs !== null) yield [start + durationMs / SECOND, 'span', { ...span, durationMs, success: more.success ?? true }];
  }
  for (const [parent, name, t, more] of EVENTS)
    yield [t, 'event', { name, parentId: parentId(parent), success: null, ...common, ...more }];
  for (const [t, error] of ERRORS) yield [t, 'mark', { kind: 'error', ...error }];
}

const TIMES = ['joinedAt', 'leftAt', 'startedAt', 'endedAt'];
const TIMED = ['mark', 'event', 'samples'];

/** The messages {t, name, data} of a meeting that began at `begin`, as they come. */
export function meeting(begin) {
  const absolute = (t) => Math.round(begin + t * SECOND);
  const withTimes = (data) =>
    Object.fromEntries(Object.entries(data).map(([key, value]) => [key, TIMES.includes(key) && value !== null ? absolute(value) : value]));
  const all = [...states(), ...people(), ...samples(), ...traces(begin)];
  return all
    .sort((a, b) => a[0] - b[0])
    .map(([at, name, data]) => {
      const t = absolute(at);
      const whole = withTimes(data);
      if (whole.stream) whole.stream = withTimes(whole.stream);
      return { t, name, data: TIMED.includes(name) ? { t, ...whole } : whole };
    });
}

export const MEETING_MS = LENGTH * SECOND;
