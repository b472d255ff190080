// A meeting of two minutes in which much goes wrong. Times are in seconds from its beginning.
const SECOND = 1000;
const LENGTH = 116;
const BOTTLENECK = { from: 46, congested: 52, relieved: 71, to: 79 };
const FREEZE = { from: 58, again: 63, to: 70 };
const AWAY = { from: 8, to: 13.4 };
const ALAN_LEAVES = 96;

/** The same numbers in every run. */
function noise(seed) {
  let state = seed;
  return (spread) => {
    state = (state * 1103515245 + 12345) % 2 ** 31;
    return (state / 2 ** 30 - 1) * spread;
  };
}

const between = (t, from, to) => t >= from && t < to;
/** 0 outside, 1 inside, and a slope of some seconds at both ends. */
const hump = (t, from, to, slope) => Math.max(0, Math.min(1, (t - from) / slope, (to - t) / slope));
const round = (value, digits = 0) => Number(Math.max(0, value).toFixed(digits));

const video = { kind: 'video', state: 'ACTIVE', codec: 'video/VP8' };
const audio = { kind: 'audio', state: 'ACTIVE', codec: 'audio/opus' };
const PEOPLE = [
  { id: 'p-ada', name: 'Ada', local: true, joins: 1.9 },
  { id: 'p-grace', name: 'Grace', local: false, joins: 16 },
  { id: 'p-alan', name: 'Alan', local: false, joins: 24, leaves: ALAN_LEAVES },
];
const STREAMS = {
  'p-ada': [['ada-v', video, 15], ['ada-a', audio, 15.5]],
  'p-grace': [['grace-v', video, 17.4], ['grace-a', audio, 16.8]],
  'p-alan': [['alan-v', video, 25.1], ['alan-a', audio, 24.9]],
};

const narrow = (t) => hump(t, BOTTLENECK.from, BOTTLENECK.to, 6);
const queue = (t) => hump(t, BOTTLENECK.congested - 3, BOTTLENECK.relieved + 3, 5);
const stalled = (t) => between(t, FREEZE.from - 2, FREEZE.to - 4);
const HD = { width: 1280, height: 720 };
const SMALL = { width: 640, height: 360 };

/** The sound of somebody who `speaks` at times, `strain` being 0 to 1. */
const sound = (speaks, strain, about) => ({
  bitrate: (speaks ? 38 : 13) + about(5),
  loss: 4.5 * strain + about(0.25),
  jitter: 8 + 38 * strain + about(3),
  level: speaks ? 0.42 + about(0.24) : 0.02,
});

// What is measured of each stream at a time, with something about it.
const FIGURES = {
  'ada-v': (t, about) => ({
    bitrate: (1650 - 1330 * narrow(t)) * Math.min(1, (t - 14) / 7) + about(70),
    fps: 30 - 17 * queue(t) + about(1),
    ...(narrow(t) > 0.6 ? SMALL : HD),
    rtt: 42 + 360 * queue(t) + about(9),
    loss: 6.4 * queue(t) + about(0.3),
    jitter: 9 + 24 * queue(t) + about(2),
  }),
  'ada-a': (t, about) => ({
    ...sound(between(t % 31, 4, 19), queue(t) / 2, about),
    rtt: 41 + 350 * queue(t) + about(8),
  }),
  'grace-v': (t, about) => ({
    ...(stalled(t)
      ? { bitrate: 60 + about(40), fps: 1.5 + about(1.5), loss: 9 + about(4), jitter: 96 + about(30) }
      : { bitrate: 1240 + about(110), fps: 29 + about(1.4), loss: about(0.4), jitter: 12 + about(4) }),
    ...HD,
    freezes: [FREEZE.from, FREEZE.again].filter((at) => t >= at).length,
  }),
  'grace-a': (t, about) => sound(!between(t % 31, 2, 20), stalled(t) ? 1 : 0, about),
  'alan-v': (t, about) => ({
    ...{ bitrate: 480 + about(60), fps: 24 + about(1), ...SMALL },
    ...{ loss: about(0.5), jitter: 18 + about(6), freezes: 0 },
  }),
  'alan-a': (t, about) => sound(between(t % 17, 0, 9), 0, about),
};

const ORDER = ['bitrate', 'fps', 'width', 'height', 'rtt', 'loss', 'jitter', 'level', 'freezes'];
const DIGITS = { loss: 1, level: 2 };
const inOrder = (figures) =>
  ORDER.map((key) => (figures[key] === undefined ? null : round(figures[key], DIGITS[key])));

function* people() {
  for (const { joins, leaves, ...person } of PEOPLE) {
    const whole = { ...person, mode: 'SEND_AND_RECV', joinedAt: joins, leftAt: null };
    const mark = (text) => ({ kind: 'participant', text, participantId: person.id });
    yield [joins, 'participant', whole];
    if (!person.local) yield [joins, 'mark', mark('joined')];
    for (const [id, what, startedAt] of STREAMS[person.id]) {
      const stream = { id, ...what, startedAt, endedAt: null };
      yield [startedAt, 'stream', { participantId: person.id, stream }];
      const ended = { ...stream, endedAt: leaves, state: 'ENDED' };
      if (leaves) yield [leaves, 'stream', { participantId: person.id, stream: ended }];
    }
    if (!leaves) continue;
    yield [leaves, 'participant', { ...whole, leftAt: leaves }];
    yield [leaves, 'mark', mark('left')];
  }
}

function* samples() {
  const sources = PEOPLE.flatMap(({ id: person, leaves = Infinity }, row) =>
    STREAMS[person].map(([id, , begins], at) => ({ id, begins, leaves, about: noise(row * 7919 + at * 31) })),
  );
  for (let t = 15; t <= LENGTH; t += 1) {
    const there = sources.filter(({ begins, leaves }) => between(t, begins, leaves));
    const streams = there.map(({ id, about }) => [id, inOrder(FIGURES[id](t, about))]);
    yield [t + 0.2, 'samples', { streams: Object.fromEntries(streams) }];
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
}

function* freeze() {
  const participantId = 'p-grace';
  const [[id, what, startedAt]] = STREAMS[participantId];
  for (const [t, state] of [[FREEZE.from, 'FREEZE_DETECTED'], [FREEZE.to, 'FREEZE_RESOLVED']]) {
    yield [t, 'mark', { kind: 'stream', text: state, participantId, streamId: id }];
    yield [t, 'stream', { participantId, stream: { id, ...what, state, startedAt, endedAt: null } }];
  }
}

const attributes = (all, more = {}) => ({ attributes: all, ...more });
const failed = (message, all) => ({ success: false, message, attributes: all });
const media = { category: 'media' };

// [parent, name, start, ms or null while it runs, more]
const SPANS = [
  [null, 'Initializing the meeting', 0, 4, attributes({ meetingId: 'kqx3-m8vt-2pca' })],
  [null, 'Joining the meeting', 0.1, 1820, attributes({ micEnabled: 'true', webcamEnabled: 'true' })],
  ['Joining the meeting', 'Looking up the service', 0.11, 212, { category: 'http' }],
  ['Joining the meeting', 'Requesting Entry', 0.4, 540, {}],
  ['Joining the meeting', 'Loading the device', 0.95, 31, media],
  ['Joining the meeting', 'Creating transports', 1.0, 870, media],
  [null, 'Reconnecting to the meeting', AWAY.from, 5400, attributes({ reason: 'transport close' })],
  [
    ...['Reconnecting to the meeting', 'Opening the socket, attempt 1', 8.1, 2010],
    failed('Connection refused', { host: '10.0.0.7', port: '443' }),
  ],
  ['Reconnecting to the meeting', 'Opening the socket, attempt 2', 12.2, 480, {}],
  [null, 'Enabling webcam', 14.2, 780, attributes({ encoderConfig: 'h720p_w1280p', codec: 'VP8' })],
  ['Enabling webcam', 'Publishing video', 14.4, 560, attributes({ layers: 'q, h, f' }, media)],
  [null, 'Receiving video of Grace', 16.9, 490, attributes({ streamId: 'grace-v' }, media)],
  [null, 'Receiving video of Alan', 24.6, 1480, attributes({ streamId: 'alan-v' }, media)],
  [
    ...[null, 'Setting quality of Grace', 55.3, 3020],
    failed('The service did not answer within 3 s', { peerId: 'p-grace', quality: 'high' }),
  ],
  [null, 'Restarting ICE', 60.2, 2240, attributes({ transport: 'recv' }, media)],
  ['Restarting ICE', 'Asking for new parameters', 60.3, 1630, {}],
  [null, 'Publishing on topic CHAT', 88, 46, attributes({ topic: 'CHAT' }, { category: 'realtime' })],
  [null, 'Starting the recording', 112, null, attributes({ layout: 'GRID' })],
  ['Starting the recording', 'Waiting for the service', 112.1, null, {}],
];

const quality = { category: 'quality' };
const roundTrips = { avgRoundTripTimeInMs: '231', ewmaRttInMs: '92' };
// [parent, name, t, more]
const EVENTS = [
  ['Requesting Entry', 'entryResponded', 0.93, attributes({ decision: 'allowed' })],
  ['Creating transports', 'Send transport made', 1.4, {}],
  ['Creating transports', 'Receive transport made', 1.8, {}],
  [null, 'Bandwidth Limitation detected', BOTTLENECK.from + 2, quality],
  [null, 'Network Congestion detected', BOTTLENECK.congested, attributes(roundTrips, quality)],
  ['Setting quality of Grace', 'Answer missing', 58.32, { success: false }],
  ['Restarting ICE', 'Candidate pair changed', 62.3, attributes({ local: 'relay', remote: 'host' })],
];

const ERRORS = [
  [AWAY.from + 0.2, { code: 3065, text: 'ERROR_MEETING_RECONNECTING' }],
  [58.3, { code: 3015, text: 'ERROR_ACTION_TIMED_OUT', participantId: 'p-grace' }],
];

function* traces() {
  const idOf = (name) => (name === null ? null : `s${SPANS.findIndex(([, one]) => one === name) + 1}`);
  const common = { category: 'signalling', attributes: {} };
  for (const [parent, name, start, durationMs, more] of SPANS) {
    const whole = { id: idOf(name), parentId: idOf(parent), name, start, message: '', ...common, ...more };
    yield [start, 'span', { ...whole, message: '', durationMs: null, success: null }];
    const end = { ...whole, durationMs, success: more.success ?? true };
    if (durationMs !== null) yield [start + durationMs / SECOND, 'span', end];
  }
  for (const [parent, name, t, more] of EVENTS)
    yield [t, 'event', { name, parentId: idOf(parent), success: null, ...common, ...more }];
  for (const [t, error] of ERRORS) yield [t, 'mark', { kind: 'error', ...error }];
}

const TIMES = ['joinedAt', 'leftAt', 'startedAt', 'endedAt', 'start'];
const TIMED = ['mark', 'event', 'samples'];

/** The messages {t, name, data} of a meeting that began at `begin`, as they come. */
export function meeting(begin) {
  const absolute = (t) => Math.round(begin + t * SECOND);
  const inTime = (data) => {
    const time = ([key, value]) => [key, TIMES.includes(key) && value !== null ? absolute(value) : value];
    return Object.fromEntries(Object.entries(data).map(time));
  };
  return [...states(), ...people(), ...samples(), ...freeze(), ...traces()]
    .sort((a, b) => a[0] - b[0])
    .map(([at, name, data]) => {
      const t = absolute(at);
      const whole = inTime(name === 'stream' ? { ...data, stream: inTime(data.stream) } : data);
      return { t, name, data: TIMED.includes(name) ? { t, ...whole } : whole };
    });
}

export const MEETING_MS = LENGTH * SECOND;
