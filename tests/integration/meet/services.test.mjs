import * as assert from 'node:assert/strict';
import { test } from 'node:test';
import { join, openPlace } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service, folder } = await openPlace({ serviceDelay: 50, transcriptionPace: 0, grace: 20_000 });

const quiet = ['--camera', 'none', '--mic', 'none'];
const joining = (meeting, name, ...more) => join(service, meeting, name, ...quiet, ...more);
const being = (state) => (entry) => entry.state === state;
const say = (roomId, participantName, text) =>
  service.control('transcribe', { roomId, participantId: 'any', participantName, text });

test('keys record the meeting and write down what is said, as subtitles', async () => {
  const grace = joining('keys', 'Grace');
  await grace.event('joined');
  const ada = new TerminalRun(service, folder, 'keys', 'Ada', ...quiet);
  await ada.shows(/R recording, T transcription/);
  await grace.event('participantJoined');
  ada.press('R');
  await grace.event('recording', being('RECORDING_STARTED'));
  assert.deepEqual(grace.all('recording', 'state'), ['RECORDING_STARTING', 'RECORDING_STARTED']);
  await ada.draws(/^recording started$/);
  ada.press('T');
  await ada.draws(/^recording started, transcription started$/);

  await say('keys', 'Grace', 'the first');
  await ada.draws(/^Grace: the first$/);
  await say('keys', 'Eve\u001b[2J', `one\nthat is ${'very '.repeat(40)}long`);
  await ada.draws(/^Eve\?\[2J: [very ]+long$/);
  await say('keys', 'Grace', 'the third');
  await ada.draws(/^Grace: the third$/);
  assert.ok(!ada.table.some((line) => line.includes('the first')), 'two lines at most');
  const { participantName, type } = await grace.event('transcriptionText');
  assert.deepEqual([participantName, type], ['Grace', 'realtime']);
  await ada.draws(/: the third/, { gone: true });
  assert.ok(!ada.output.includes('\u001b[2J'), 'what is said controls the terminal');

  ada.press('RT');
  await grace.event('recording', being('RECORDING_STOPPED'));
  await grace.event('transcription', being('TRANSCRIPTION_STOPPED'));
  await ada.draws(/^(recording|transcription) /, { gone: true });
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await grace.stop('SIGTERM');
});

test('a whiteboard and an HLS stream are told with their addresses', async () => {
  const grace = joining('shown', 'Grace', '--start', 'hls', '--start=whiteboard');
  const { url } = await grace.event('whiteboard');
  const playable = await grace.event('hls', being('HLS_PLAYABLE'));
  assert.deepEqual(grace.all('hls', 'state'), ['HLS_STARTING', 'HLS_STARTED', 'HLS_PLAYABLE']);
  assert.match(playable.downstreamUrl, /^https:/);
  assert.equal(grace.all('hls', 'playbackHlsUrl')[0], null);

  // Who comes later is told, too.
  const ada = new TerminalRun(service, folder, 'shown', 'Ada', ...quiet);
  await ada.draws(/^HLS playable, whiteboard open$/);
  assert.ok(ada.table.includes(`HLS: ${playable.playbackHlsUrl}`), ada.table.join('\n'));
  assert.ok(ada.table.includes(`whiteboard: ${url}`));
  ada.press('W');
  await grace.event('whiteboard', (entry) => entry.url === null);
  await ada.draws(/^HLS playable$/);
  ada.press('W');
  await ada.shows(/whiteboard at https:/);
  ada.press('H');
  await grace.event('hls', being('HLS_STOPPED'));
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await grace.stop('SIGTERM');
});

test('what is refused, and what breaks, is told with its reason', async () => {
  const grace = joining('breaks', 'Grace');
  await grace.event('joined');
  const ada = new TerminalRun(service, folder, 'breaks', 'Ada', ...quiet);
  await grace.event('participantJoined');
  await service.control('refuseRequest', { method: 'startRecording', message: 'no room left' });
  ada.press('R');
  await ada.shows(/! error 4011 START_RECORDING_FAILED: [^\n]*no room left/);
  ada.press('R');
  await grace.event('recording', being('RECORDING_STARTED'));
  await service.control('failService', { roomId: 'breaks', service: 'recording' });
  assert.equal((await grace.event('error')).code, 5001);
  await grace.event('recording', being('RECORDING_STOPPED'));
  await ada.shows(/! error 5001 RECORDING_FAILED/);
  await ada.draws(/^recording /, { gone: true });
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await grace.stop('SIGTERM');
});

test('after a lost connection the states are told again', async () => {
  const roomId = 'lossy';
  const ada = joining(roomId, 'Ada', '--participant', 'ada', '--start', 'recording');
  await ada.event('recording', being('RECORDING_STARTED'));
  await service.control('dropSocket', { roomId, peerId: 'ada', downMs: 300 });
  await ada.event('state', being('RECONNECTING'));
  await service.control('failService', { roomId, service: 'recording' });
  await ada.event('recording', being('RECORDING_STOPPED'));
  await ada.stop('SIGTERM');

  // It is carried out, but the answer doesn't come.
  await service.control('loseAnswer', { method: 'startTranscription', downMs: 300 });
  const grace = joining(roomId, 'Grace', '--start', 'transcription');
  assert.equal((await grace.event('error')).code, 4031);
  await grace.event('transcription', being('TRANSCRIPTION_STARTED'));
  await grace.stop('SIGTERM');
});
