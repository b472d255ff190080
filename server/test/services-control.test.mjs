import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { meetingOf, NEVER_MS, SERVICES, settled, told } from './services-support.mjs';
import { openService } from './support.mjs';

let service;
before(async () => {
  service = await openService({ serviceDelay: 0, transcriptionPace: 0 });
});
after(() => service.close());

const meeting = (...peerIds) => meetingOf(service, ...peerIds);

describe('what is transcribed', () => {
  it('comes from those who publish sound, in turn', async () => {
    const here = await meeting('ada', 'bob', 'eve');
    const [ada, bob, eve] = here.clients;
    await ada.produce('audio');
    await bob.produce('video');
    await eve.produce('audio');
    await here.control('setTranscriptionPace', { ms: 1 });
    await ada.ok('startTranscription');
    const heard = [];
    for (let i = 0; i < 4; i += 1) heard.push(await bob.next('transcriptionText'));
    for (const text of heard) {
      const keys = ['participantId', 'participantName', 'text', 'timestamp', 'type'];
      assert.deepEqual(Object.keys(text), keys);
      assert.equal(text.participantName, text.participantId);
      assert.equal(text.type, 'realtime');
      assert.ok(Math.abs(Date.now() - text.timestamp) < 60_000);
    }
    assert.deepEqual(
      heard.map((text) => text.participantId),
      ['ada', 'eve', 'ada', 'eve'],
    );
    await here.control('pauseProducer', { peerId: 'ada', kind: 'audio' });
    await settled(here, bob);
    bob.events.length = 0;
    for (let i = 0; i < 2; i += 1)
      assert.equal((await bob.next('transcriptionText')).participantId, 'eve');
    await bob.ok('stopTranscription');
    await bob.next('transcriptionStateChanged', (d) => d.status === 'TRANSCRIPTION_STOPPING');
    bob.events.length = 0;
    await here.reaches('transcription', 'TRANSCRIPTION_STOPPED');
    await settled(here, bob);
    assert.deepEqual(bob.seen('transcriptionText'), []);
  });

  it('may be said on demand, by anybody', async () => {
    const here = await meeting('ada');
    const [ada] = here.clients;
    await assert.rejects(here.control('transcribe', { text: 'hi' }), /409/);
    await here.control('transcribe', { text: 'odd', participantId: 'gone' });
    const gone = await ada.next('transcriptionText');
    assert.deepEqual([gone.participantId, gone.participantName, gone.text], ['gone', '', 'odd']);
    await ada.produce('audio');
    await here.control('transcribe', { text: 'hi' });
    assert.equal((await ada.next('transcriptionText')).participantId, 'ada');
    await assert.rejects(here.control('transcribe', { text: 5 }), /400/);
  });

  it('starts and stops with the recording or the stream that has it', async () => {
    const here = await meeting('ada');
    const [ada] = here.clients;
    const transcription = { enabled: true, summary: { enabled: true, prompt: 'p' } };
    const { reaches } = here;
    await ada.ok('startRecording', { transcription });
    await reaches('transcription', 'TRANSCRIPTION_STARTED');
    const { asked } = await here.state('transcription');
    assert.deepEqual(asked, { with: 'recording', summary: transcription.summary });
    await ada.ok('startHls', { transcription });
    await reaches('hls', 'HLS_PLAYABLE');
    await ada.ok('stopRecording');
    await reaches('recording', 'RECORDING_STOPPED');
    assert.equal((await here.state('transcription')).status, 'TRANSCRIPTION_STARTED');
    await ada.ok('stopHls');
    await reaches('transcription', 'TRANSCRIPTION_STOPPED');

    // One that somebody asked for outlives the recording; one that was stopped stays so.
    await ada.ok('startTranscription');
    await ada.ok('startRecording', { transcription });
    await ada.ok('stopRecording');
    await reaches('recording', 'RECORDING_STOPPED');
    await reaches('transcription', 'TRANSCRIPTION_STARTED');
    await ada.ok('stopTranscription');
    await reaches('transcription', 'TRANSCRIPTION_STOPPED');

    // A recording that begins while an earlier transcription is stopping gets a new one.
    await ada.ok('startTranscription');
    await here.control('setServiceDelay', { service: 'transcription', ms: NEVER_MS });
    await ada.ok('stopTranscription');
    await ada.ok('startRecording', { transcription });
    await here.control('setServiceDelay', { service: 'transcription' });
    await reaches('transcription', 'TRANSCRIPTION_STARTED');
    await here.control('failService', { service: 'recording' });
    await reaches('transcription', 'TRANSCRIPTION_STOPPED');
  });

  it('goes on while nobody can connect', async (t) => {
    const own = await openService({ serviceDelay: 0, grace: 60_000 });
    t.after(() => own.close());
    const here = await meetingOf(own, 'ada');
    const [ada] = here.clients;
    await ada.ok('startTranscription');
    await here.reaches('transcription', 'TRANSCRIPTION_STARTED');
    await here.control('setServiceDelay', { service: 'transcription', ms: 200 });
    await ada.ok('stopTranscription');
    await ada.ok('startRecording', { transcription: { enabled: true } });
    await own.control('restart', { downMs: 600, keepRooms: true });
    await ada.join();
    await here.reaches('transcription', 'TRANSCRIPTION_STARTED');
  });
});

describe('failures and odd events on demand', () => {
  it('fails at the start, while running, and at the stop', async () => {
    const codes = { recording: 5001, livestream: 5002, hls: 5003, transcription: 5007 };
    for (const [name, code] of Object.entries(codes)) {
      const here = await meeting('ada');
      const [ada] = here.clients;
      const [start, stop, data] = SERVICES[name];
      const prefix = name.toUpperCase();
      const running = name === 'hls' ? 'HLS_PLAYABLE' : `${prefix}_STARTED`;
      const events = async () => {
        await settled(here, ada);
        const all = told(ada).filter((one) => one === code || one.startsWith?.(prefix));
        ada.events.length = 0;
        return all.map((one) => (one === code ? 'error' : one.slice(prefix.length + 1)));
      };
      await assert.rejects(here.control('failService', { service: name }), /409/);
      await here.control('failService', { service: name, at: 'start' });
      await ada.ok(start, data);
      await here.reaches(name, `${prefix}_STOPPED`);
      assert.deepEqual(await events(), ['STARTING', 'error', 'STOPPED']);
      await ada.ok(start, data);
      await here.reaches(name, running);
      await events();
      await here.control('failService', { service: name, at: 'running' });
      assert.deepEqual(await events(), ['error', 'STOPPED']);
      await here.control('failService', { service: name, at: 'stop', errorCode: code });
      await ada.ok(start, data);
      await here.reaches(name, running);
      await ada.ok(stop);
      await here.reaches(name, `${prefix}_STOPPED`);
      assert.deepEqual(await events(), ['STARTING', 'STARTED', 'STOPPING', 'error', 'STOPPED']);
    }
  });

  it('names another number for a failure, and that of the whiteboard', async () => {
    const here = await meeting('ada');
    const [ada] = here.clients;
    await here.control('failService', { service: 'recording', at: 'start', errorCode: 5004 });
    await ada.ok('startRecording');
    assert.deepEqual(await ada.next('error'), { code: 5004 });
    await here.control('failService', { service: 'whiteboard', at: 'start' });
    await ada.ok('startWhiteboard', { version: 'v2' });
    assert.deepEqual(await ada.next('error'), { code: 4054 });
    await ada.next('whiteboardStopped');
    for (const odd of [{ service: 'none' }, { service: 'hls', at: 'never' }])
      await assert.rejects(here.control('failService', odd), /400/);
  });

  it('sends any state, and refuses any request, without a change', async () => {
    const here = await meeting('ada');
    const [ada] = here.clients;
    const sends = async (body, method, data) => {
      await here.control('setServiceState', body);
      assert.deepEqual(await ada.next(method), data);
    };
    const paused = { status: 'RECORDING_PAUSED', more: [1] };
    await sends({ service: 'recording', ...paused }, 'recordingStateChanged', paused);
    await sends({ service: 'livestream', status: 5 }, 'livestreamStateChanged', { status: 5 });
    const played = { isPlayable: 'TRUE', downstreamUrl: 'x' };
    await sends({ service: 'hls', ...played }, 'hlsPlayableStateChanged', played);
    const board = { service: 'whiteboard', status: 'whiteboardStarted', url: 'no url' };
    await sends(board, 'whiteboardStarted', { url: 'no url' });
    assert.equal((await here.state('recording')).status, 'RECORDING_STOPPED');

    const refused = { method: 'startRecording', peerId: 'ada', errorCode: 4028, message: 'full' };
    await here.control('refuseRequest', refused);
    const { status, errorCode, message } = await ada.request('startRecording');
    assert.deepEqual([status, errorCode, message], ['error', 4028, 'full']);
    assert.equal((await here.state('recording')).asked, null);
    await here.control('refuseRequest', { method: 'pinStateChanged' });
    await ada.ok('startRecording');
    assert.equal((await ada.request('pinStateChanged')).errorCode, 403);
    await assert.rejects(here.control('refuseRequest', {}), /400/);
  });

  it('counts the narrowest time that is set', async () => {
    const here = await meeting('ada');
    const there = await meeting('ada');
    const starts = async ({ clients: [ada] }) => {
      await ada.ok('startRecording');
      return ada.next('recordingStarted');
    };
    await here.control('setServiceDelay', { ms: NEVER_MS });
    await starts(there);
    await here.control('setServiceDelay', { service: 'recording', ms: 0 });
    await starts(here);
    await here.clients[0].ok('startHls');
    await here.control('setServiceDelay', {});
    await here.clients[0].next('hlsPlayableStateChanged');
    const odd = [{ ms: -1 }, { ms: '5' }, { service: 'tea', ms: 1 }];
    for (const body of odd) await assert.rejects(here.control('setServiceDelay', body), /400/);
  });
});

describe('agents', () => {
  it('are announced as what they are, and their events reach everybody', async () => {
    const here = await meeting('ada');
    const [ada] = here.clients;
    const agent = { agent_id: 'g7', agent_name: 'Gil', is_kestrova_agent: true };
    const metaData = { ...agent, enableAgentEvents: true };
    const bot = service.client('bot', { roomId: here.roomId });
    await bot.join({ metaData });
    assert.deepEqual((await ada.next('newPeer')).metaData, metaData);
    const late = service.client('late', { roomId: here.roomId });
    const { peers } = await late.join();
    assert.deepEqual(peers.find(({ id }) => id === 'bot').metaData, metaData);

    for (const peerId of ['bot', 'nobody']) {
      await here.control('agentState', { peerId, state: 'thinking' });
      await here.control('agentTranscript', { peerId, text: 'So', timestamp: 7 });
      await here.control('agentMetrics', { peerId, metrics: { latency: { llm: 120 }, turns: 2 } });
      for (const client of [ada, bot]) {
        const state = await client.next('agentStateChanged');
        assert.deepEqual(state, { peerId, state: 'thinking' });
        const transcript = await client.next('agentTranscript');
        assert.deepEqual(transcript, { peerId, text: 'So', timestamp: 7 });
        const metrics = await client.next('agentMetrics');
        assert.deepEqual(metrics, { peerId, latency: { llm: 120 }, turns: 2 });
      }
    }
    await here.control('agentTranscript', { peerId: 'bot', text: 'So' });
    assert.ok((await ada.next('agentTranscript')).timestamp > 1e12);
    await assert.rejects(here.control('agentMetrics', { peerId: 'bot', metrics: [] }), /400/);
    await assert.rejects(here.control('agentState', { state: 'idle' }), /400/);
  });
});
