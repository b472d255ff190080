import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import { after, before, describe, it } from 'node:test';
import * as mediasoup from 'mediasoup';
import { Voice } from '../lib/characters/voice.mjs';
import { Pipes, reach } from '../lib/pipes.mjs';
import { openService, until, within } from './support.mjs';

const accepted = { decision: 'accepted' };
const joining = { permissions: ['allow_join'] };

// Neighbouring meetings are on different workers when there are two.
for (const workers of [1, 2]) {
  describe(`a media relay with ${workers} media worker(s)`, () => {
    let service;
    before(async () => {
      service = await openService({ workers });
    });
    after(() => service.close());

    async function enter(peerId, roomId, given) {
      const client = service.client(peerId, { roomId, ...given });
      client.others = (await client.join()).peers;
      return client;
    }
    const guestsOf = async (roomId) =>
      (await service.control('rooms', { roomId })).rooms[0].relays.sent.flatMap((r) => r.guests);
    const isOf = (peerId) => (d) => d.peerId === peerId;
    const took = async (client, peerId, count) => {
      const got = [];
      while (got.length < count) got.push(await client.next('newConsumer', isOf(peerId)));
      return got;
    };

    async function start(asker, host, kinds) {
      await asker.ok('mediaRelayRequestSent', { meetingId: host.roomId, kinds });
      const request = await host.next('mediaRelayRequestReceived');
      const meetingId = asker.roomId;
      assert.deepEqual(request, { peerId: asker.peerId, meetingId, displayName: asker.peerId });
      const { peerId } = request;
      await host.ok('respondToMediaRelayRequest', { peerId, meetingId, ...accepted });
      await asker.next('mediaRealyStarted', (d) => d.meetingId === host.roomId);
      await host.next('mediaRealyStarted', (d) => d.meetingId === meetingId);
    }

    it('shows who is in one meeting in another, as they come and go', async () => {
      const [from, to] = ['stage', 'hall'];
      const ada = await enter('ada', from);
      const bob = await enter('bob', from, { mode: 'SIGNALLING_ONLY' });
      const namesake = await enter('ada', to, { token: service.token(joining) });
      await ada.produce('audio');
      await ada.produce('video');
      await ada.produce('video', { appData: { share: true } });
      await ada.ok('mediaRelayRequestSent', { meetingId: to, kinds: ['audio', 'video'] });
      const host = await enter('host', to);
      await host.next('mediaRelayRequestReceived');
      assert.deepEqual(namesake.seen('mediaRelayRequestReceived'), []);
      await host.ok('respondToMediaRelayRequest', { peerId: 'ada', meetingId: from, ...accepted });
      assert.deepEqual(await ada.next('mediaRelayRequestResponse'), {
        decision: 'accepted',
        decidedBy: 'host',
        meetingId: to,
      });
      assert.deepEqual(await bob.next('mediaRealyStarted'), { meetingId: to });
      assert.deepEqual(bob.seen('mediaRelayRequestResponse'), []);
      assert.deepEqual(await host.next('mediaRealyStarted'), { meetingId: from });
      const shown = await host.next('newPeer', (d) => d.id === 'ada-2');
      assert.deepEqual([shown.displayName, shown.mode], ['ada', 'SEND_AND_RECV']);
      assert.deepEqual(shown.metaData, { enableAgentEvents: true });
      await host.next('newPeer', (d) => d.id === 'bob');
      for (const client of [host, namesake]) {
        const kinds = (await took(client, 'ada-2', 2)).map(({ appData, kind }) => {
          assert.equal(appData.peerId, 'ada-2');
          return kind;
        });
        assert.deepEqual(kinds.sort(), ['audio', 'video']);
      }

      const late = await enter('late', to);
      const names = late.others.map(({ id }) => id).sort();
      assert.deepEqual(names, ['ada', 'ada-2', 'bob', 'host']);
      await took(late, 'ada-2', 2);

      // What there is follows, what goes is gone.
      const carl = await enter('carl', from);
      await host.next('newPeer', (d) => d.id === 'carl');
      await carl.produce('audio');
      const [heard] = await took(host, 'carl', 1);
      const state = await host.next('participantMediaStateChanged', isOf('carl'));
      assert.deepEqual(state, { peerId: 'carl', kind: 'audio', newState: true });
      for (const [action, event] of [
        ['pauseProducer', 'consumerPaused'],
        ['resumeProducer', 'consumerResumed'],
        ['closeProducer', 'consumerClosed'],
      ]) {
        const fits = (d) => d.consumerId === heard.id;
        if (action === 'pauseProducer') host.events.length = 0;
        await service.control(action, { roomId: from, peerId: 'carl', kind: 'audio' });
        await host.next(event, fits);
      }
      assert.equal((await host.next('participantMediaStateChanged', isOf('carl'))).newState, false);
      await ada.ok('disableRelayMedia', { meetingId: to, kind: 'video' });
      const video = await host.next('participantMediaStateChanged', isOf('ada-2'));
      assert.deepEqual(video, { peerId: 'ada-2', kind: 'video', newState: false });
      await host.next('consumerClosed');
      await ada.ok('enableRelayMedia', { meetingId: to, kind: 'share' });
      assert.equal((await took(host, 'ada-2', 1))[0].appData.share, true);
      await ada.ok('enableRelayMedia', { meetingId: to, kind: 'video' });
      await took(host, 'ada-2', 1);
      await bob.ok('changeMode', { mode: 'VIEWER' });
      const mode = await host.next('peerModeChanged');
      assert.deepEqual(mode, { peerId: 'bob', mode: 'VIEWER' });
      carl.socket.disconnect();
      await host.next('peerClosed', isOf('carl'));

      // Both ways at once, and nothing goes on.
      await start(host, ada);
      const ids = (await guestsOf(to)).map(({ of }) => of).sort();
      assert.deepEqual(ids, ['ada', 'host', 'late']);
      assert.deepEqual((await guestsOf(from)).map(({ id }) => id).sort(), ['ada-2', 'bob']);
      await ada.ok('mediaRelayRequestStop', { meetingId: to });
      assert.deepEqual(await host.next('peerClosed', isOf('bob')), {
        peerId: 'bob',
        reason: { code: 1004 },
      });
      for (const [client, meetingId] of [
        [bob, to],
        [late, from],
      ])
        assert.deepEqual(await client.next('mediaRelayStopped'), { meetingId });
      // A moderator ends what comes in, and starting anew needs new pipes.
      await ada.ok('mediaRelayRequestStop', { meetingId: to });
      await host.next('mediaRelayStopped', (d) => d.meetingId === from);
      host.events.length = 0;
      await start(ada, host);
      await took(host, 'ada-2', 3);
      for (const client of [host, late, namesake])
        assert.deepEqual(client.seen('consumeFailed'), []);
    });

    it('gives way to those who are there themselves', async () => {
      const [from, to] = ['near', 'far'];
      const [ada, bob] = [await enter('ada', from), await enter('bob', from)];
      const host = await enter('host', to);
      await ada.produce('audio');
      await start(bob, host);
      await took(host, 'ada', 1);
      const namesake = await enter('ada', to, { mode: 'SIGNALLING_ONLY' });
      const gone = await host.next('peerClosed', isOf('ada'));
      assert.equal(gone.reason.code, 1007);
      await took(host, 'ada-2', 1);
      assert.deepEqual(namesake.others.map(({ id }) => id).sort(), ['ada-2', 'bob', 'host']);

      await service.control('switchRoom', { roomId: from, peerId: 'bob', toRoomId: to });
      assert.deepEqual(await host.next('peerClosed', isOf('bob')), {
        peerId: 'bob',
        reason: { code: 1005 },
      });
      bob.moveTo(to);
      const { peers } = await bob.ok('join', bob.joinData({ switchingRoom: true }));
      assert.ok(
        peers.some(({ id }) => id === 'ada-2'),
        'it goes on without the one who asked',
      );
      await took(bob, 'ada-2', 1);

      await host.ok('removePeer', { peerId: 'ada-2' });
      const { reason } = await bob.next('peerClosed', isOf('ada-2'));
      assert.equal(reason.code, 1002);
      await ada.produce('video');
      assert.deepEqual(await guestsOf(from), []);
      assert.equal((await host.request('enablePeerMic', { peerId: 'ada-2' })).errorCode, 404);
      const eve = await enter('eve', from);
      await host.next('newPeer', (d) => d.id === 'eve');
      await host.ok('pinStateChanged', { peerId: 'eve', state: { cam: true, share: false } });
      assert.equal((await host.request('enablePeerMic', { peerId: 'eve' })).errorCode, 404);
      await eve.produce('video');
      await took(bob, 'eve', 1);
    });

    it('ends with either meeting, and when it breaks', async () => {
      const [ada, host] = [await enter('ada', 'one'), await enter('host', 'two')];
      await ada.produce('audio');
      await start(ada, host);
      await took(host, 'ada', 1);
      await service.control('failRelay', { roomId: 'one', meetingId: 'two', reason: 'no way' });
      const reason = 'no way';
      assert.deepEqual(await ada.next('mediaRelayError'), { meetingId: 'two', reason });
      assert.equal((await host.next('peerClosed')).reason.code, 1004);
      assert.deepEqual(await host.next('mediaRelayError'), { meetingId: 'one', reason });
      await start(ada, host);
      await service.control('closeRoom', { roomId: 'one' });
      await host.next('peerClosed', isOf('ada'));
      assert.deepEqual(await host.next('mediaRelayStopped'), { meetingId: 'one' });

      const bob = await enter('bob', 'one');
      await start(bob, host);
      const eve = await enter('eve', 'three');
      await eve.ok('mediaRelayRequestSent', { meetingId: 'two' });
      await host.next('mediaRelayRequestReceived', isOf('eve'));
      host.socket.disconnect();
      assert.deepEqual(await bob.next('mediaRelayStopped'), { meetingId: 'two' });
      assert.deepEqual((await eve.next('mediaRelayError')).meetingId, 'two');
      const { rooms } = await service.control('rooms', { roomId: 'three' });
      assert.deepEqual(rooms[0].relays, { sent: [], received: [] });
    });

    it('is refused for what is odd', async () => {
      const token = service.token({ ...joining, roomId: 'here' });
      const ada = await enter('ada', 'here', { token });
      const bob = await enter('bob', 'there', { token: service.token(joining) });
      const good = { meetingId: 'there', token: service.token() };
      const elsewhere = service.token({ roomId: 'elsewhere' });
      const answer = { peerId: 'ada', meetingId: 'here' };
      const refuse = async (client, cases) => {
        for (const [method, data, errorCode] of cases) {
          const { errorCode: code } = await client.request(method, data);
          assert.equal(code, errorCode, `${method} ${JSON.stringify(data)}`);
        }
      };
      await refuse(ada, [
        ['mediaRelayRequestSent', { meetingId: 'there' }, 4022],
        ['mediaRelayRequestSent', { ...good, token: elsewhere }, 4022],
        ['mediaRelayRequestSent', { ...good, token: 'a.b.c' }, 4002],
        ['mediaRelayRequestSent', { ...good, token: 5 }, 400],
        ['mediaRelayRequestSent', { ...good, kinds: ['smell'] }, 400],
        ['mediaRelayRequestSent', { ...good, kinds: 'audio' }, 400],
        ['mediaRelayRequestSent', { ...good, kinds: [] }, 400],
        ['mediaRelayRequestSent', { ...good, meetingId: 'here' }, 400],
        ['mediaRelayRequestSent', { ...good, meetingId: 'nowhere' }, 404],
        ['mediaRelayRequestSent', {}, 400],
        ['mediaRelayRequestStop', { meetingId: 'there' }, 404],
        ['enableRelayMedia', { meetingId: 'there', kind: 'video' }, 404],
        ['respondToMediaRelayRequest', { ...answer, ...accepted }, 403],
      ]);
      await ada.ok('mediaRelayRequestSent', { ...good, kinds: null });
      await refuse(ada, [
        ['mediaRelayRequestSent', good, 409],
        ['disableRelayMedia', { meetingId: 'there', kind: 'video' }, 404],
      ]);
      await refuse(bob, [
        ['respondToMediaRelayRequest', { ...answer, ...accepted }, 403],
        ['mediaRelayRequestStop', { meetingId: 'here' }, 404],
      ]);
      const host = await enter('host', 'there');
      await host.next('mediaRelayRequestReceived');
      await refuse(host, [
        ['respondToMediaRelayRequest', { ...answer, decision: 'perhaps' }, 400],
        ['respondToMediaRelayRequest', { ...answer, peerId: 'eve', ...accepted }, 404],
        ['respondToMediaRelayRequest', { ...answer, meetingId: 'elsewhere', ...accepted }, 404],
      ]);
      await host.ok('respondToMediaRelayRequest', { ...answer, decision: 'rejected' });
      assert.equal((await ada.next('mediaRelayRequestResponse')).decision, 'rejected');
      await ada.ok('mediaRelayRequestSent', good);
      await host.next('mediaRelayRequestReceived');
      await ada.ok('mediaRelayRequestStop', { meetingId: 'there' });
      await refuse(host, [['respondToMediaRelayRequest', { ...answer, ...accepted }, 404]]);
      await ada.ok('mediaRelayRequestSent', good);
      await host.ok('respondToMediaRelayRequest', { ...answer, ...accepted });
      await refuse(ada, [
        ['mediaRelayRequestSent', good, 409],
        ['disableRelayMedia', { meetingId: 'there', kind: 'smell' }, 400],
      ]);
      await refuse(bob, [['mediaRelayRequestStop', { meetingId: 'here' }, 403]]);
      assert.deepEqual(ada.seen('mediaRelayStopped'), []);
    });

    it('tells both sides when a media worker is lost', async (t) => {
      const own = await openService({ workers });
      t.after(() => own.close());
      const [ada, host] = ['ada', 'host'].map((id) => own.client(id, { roomId: `of-${id}` }));
      await ada.join();
      await host.join();
      await start(ada, host);
      const { workers: pids } = await own.control('rooms');
      process.kill(pids[0], 'SIGKILL');
      for (const client of [ada, host]) await client.next('mediaRelayError');
      await until(async () => !(await own.control('rooms')).workers.includes(pids[0]));
    });
  });
}

describe('pipes', () => {
  let workers;
  before(async () => {
    const open = () => mediasoup.createWorker({ logLevel: 'error', disableLiburing: true });
    workers = await Promise.all([open(), open()]);
  });
  after(async () => {
    for (const worker of workers) {
      worker.close();
      await once(worker, 'subprocessclose');
    }
  });

  it('last as long as somebody holds them, and can be made again', async () => {
    const opus = { kind: 'audio', mimeType: 'audio/opus', clockRate: 48000, channels: 2 };
    const [near, far] = await Promise.all(
      workers.map((worker) => worker.createRouter({ mediaCodecs: [opus] })),
    );
    const voice = await Voice.open(near, { peerId: 'robin', hz: 440 });
    const { producer } = voice;
    const transport = await far.createDirectTransport();
    const { rtpCapabilities } = far;
    const consume = () => transport.consume({ producerId: producer.id, rtpCapabilities });
    const heard = async () => {
      const consumer = await consume();
      const first = within('a packet', (resolve) => consumer.once('rtp', resolve));
      voice.speak(2000, () => {});
      await first;
      voice.silence();
      return consumer;
    };
    const [one, two] = [new Pipes(), new Pipes()];
    await Promise.all([one, one, two].map((pipes) => pipes.reach(producer, near, far)));
    const first = await heard();
    one.release(producer);
    one.release(producer);
    assert.equal((await heard()).closed, false, 'another holds it');
    const end = within('the end', (resolve) => first.on('producerclose', resolve));
    two.releaseAll();
    await end;

    // Let go before it is there.
    const early = one.reach(producer, near, far);
    one.release(producer);
    await early;
    assert.equal(far.appData.piped.size, 0);
    await Promise.all([one.reach(producer, near, far), reach(producer, near, far)]);
    one.release(producer);
    await heard();
    voice.close();
    assert.equal(far.appData.piped.size, 0);
    await assert.rejects(reach(producer, near, far));
    assert.equal(far.appData.piped.size, 0);
  });
});
