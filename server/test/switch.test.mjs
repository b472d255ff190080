import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('moving to another meeting', () => {
  let service;
  before(async () => {
    // With two workers, neighbouring meetings are on different ones.
    service = await openService({ workers: 2 });
  });
  after(() => service.close());

  const peersOf = async (roomId) => (await service.control('rooms', { roomId })).rooms[0]?.peers;
  const peerState = async (roomId, id) => (await peersOf(roomId)).find((peer) => peer.id === id);
  const ids = (list) => list.map((item) => item.id).sort();
  const askFor = (meetingId, more) => ({
    meetingId,
    secret: '',
    participantId: 'ada',
    mode: 'SEND_AND_RECV',
    ...more,
  });

  async function gather(peerId, roomId, given) {
    const client = service.client(peerId, { roomId, ...given });
    await client.join();
    return client;
  }

  it('keeps the connection, the transports and the producers', async () => {
    // [from, to], opened so that the two are on one worker in one case and on two in the other
    for (const [from, to, between] of [
      ['one-a', 'one-b', 'one-c'],
      ['two-a', 'two-b'],
    ]) {
      const bob = await gather('bob', from);
      if (between) await gather('dan', between);
      const eve = await gather('eve', to);
      const spoken = await eve.produce('audio');
      const ada = await gather('ada', from);
      const published = [await ada.produce('audio'), await ada.produce('video')];
      const silenced = await ada.produce('audio');
      for (const producer of [...published, silenced]) {
        await bob.next('newConsumer', ({ producerId }) => producerId === producer.id);
      }
      const { sessionId } = (await service.control('rooms', { roomId: to })).rooms[0];
      const transports = ids((await peerState(from, 'ada')).transports);

      await ada.ok('switchToMeeting', askFor(to));
      assert.deepEqual(await ada.next('entryResponded'), {
        id: 'ada',
        decision: 'allowed',
        sessionId,
        switchingRoomId: to,
      });
      assert.deepEqual(await bob.next('peerClosed'), { peerId: 'ada', reason: { code: 1005 } });
      for (let i = 0; i < 3; i += 1) await bob.next('consumerClosed');
      assert.deepEqual(ids(await peersOf(from)), ['bob']);

      // What may have been on its way still names the old meeting; joining is not that.
      await ada.ok('closeProducer', { producerId: silenced.id });
      const joining = ada.joinData({ switchingRoom: true });
      assert.equal((await ada.request('join', joining)).errorCode, 403);
      ada.moveTo(to);
      assert.equal((await ada.request('join', ada.joinData())).errorCode, 409);
      ada.roomId = from;
      assert.equal((await ada.request('pauseAllConsumers', { kind: 'all' })).errorCode, 403);
      ada.moveTo(to);
      const { peers } = await ada.ok('join', joining);
      assert.deepEqual(ids(peers), ['eve']);
      assert.equal((await ada.next('newConsumer')).producerId, spoken.id);
      assert.equal((await eve.next('newPeer')).id, 'ada');
      for (const producer of published) {
        const fits = (data) => data.producerId === producer.id;
        assert.equal((await eve.next('newConsumer', fits)).peerId, 'ada');
      }
      await until(async () => (await peerState(to, 'eve')).consumers.every((c) => !c.paused));
      assert.deepEqual(ids((await peerState(to, 'ada')).transports), transports);

      await ada.ok('closeProducer', { producerId: published[0].id });
      await eve.next('consumerClosed');
      await service.control('dropSocket', { roomId: to, peerId: 'ada' });
      await ada.join();
      assert.deepEqual(ids(await peersOf(to)), ['ada', 'eve']);
      assert.deepEqual([...eve.seen('newPeer'), ...eve.seen('peerClosed')], []);
      assert.deepEqual([...eve.seen('consumeFailed'), ...ada.seen('consumeFailed')], []);
      ada.socket.disconnect();
      assert.deepEqual(await eve.next('peerClosed'), { peerId: 'ada', reason: { code: 1001 } });
      assert.deepEqual(bob.seen('peerClosed'), []);
    }
  });

  it('goes only where the token, and whoever decides there, let it', async () => {
    const ada = await gather('ada', 'home', {
      token: service.token({ permissions: ['allow_join'], roomId: 'home' }),
    });
    for (const [asked, errorCode] of [
      [askFor('away'), 4022],
      [askFor('away', { secret: 'a.b.c' }), 4002],
      [askFor('away', { secret: service.token(), participantId: 'eve' }), 400],
      [askFor('away', { secret: service.token(), mode: 'SINGING' }), 400],
      [askFor('a b', { secret: service.token() }), 400],
    ]) {
      assert.equal((await ada.request('switchToMeeting', asked)).errorCode, errorCode);
    }
    assert.equal((await ada.request('join', ada.joinData({ switchingRoom: true }))).errorCode, 409);
    assert.equal(await peersOf('away'), undefined);

    await ada.ok('switchToMeeting', askFor('home'));
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'home');
    assert.deepEqual(ids(await peersOf('home')), ['ada']);

    const asking = askFor('away', { secret: service.token({ permissions: ['ask_join'] }) });
    await service.control('refuseEntry', { roomId: 'away', how: 'answer', errorCode: 4024 });
    assert.equal((await ada.request('switchToMeeting', asking)).errorCode, 4024);
    await service.control('refuseEntry', { roomId: 'away' });
    await ada.ok('switchToMeeting', asking);
    assert.equal((await ada.next('entryResponded')).decision, 'denied');

    // A meeting that is only asked for lives as long as the one who asks.
    await ada.ok('switchToMeeting', asking);
    await until(() => peersOf('away'));
    const host = await gather('host', 'away');
    assert.deepEqual(await host.next('entryRequested'), { id: 'ada', name: 'ada' });
    await host.ok('respondEntry', { id: 'ada', decision: 'denied' });
    const { decision, switchingRoomId } = await ada.next('entryResponded');
    assert.deepEqual([decision, switchingRoomId], ['denied', undefined]);
    await ada.ok('pauseAllConsumers', { kind: 'all' });
    await ada.ok('switchToMeeting', asking);
    await host.next('entryRequested');
    await host.ok('respondEntry', { id: 'ada', decision: 'allowed' });
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'away');
    assert.equal(await peersOf('home'), undefined);
    ada.moveTo('away');
    const joining = ada.joinData({ switchingRoom: true });
    assert.equal((await ada.request('join', joining)).errorCode, 4022, 'the old token');
    await ada.ok('join', { ...joining, secret: asking.secret });
    await host.next('newPeer');
    await ada.ok('switchToMeeting', { ...asking, meetingId: 'nowhere' });
    await until(() => peersOf('nowhere'));
    ada.socket.disconnect();
    await until(async () => !(await peersOf('nowhere')));
  });

  it('is ordered by the control endpoint, and sends a double of the same id away', async () => {
    const double = await gather('ada', 'there', { reconnection: false });
    const ada = await gather('ada', 'here');
    await service.control('switchRoom', { roomId: 'here', peerId: 'ada', toRoomId: 'there' });
    assert.deepEqual(await double.next('close'), { reason: { code: 1011 } });
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'there');
    ada.moveTo('there');
    await ada.ok('join', ada.joinData({ switchingRoom: true, mode: 'RECV_ONLY' }));
    const { mode, transports } = await peerState('there', 'ada');
    assert.deepEqual([mode, transports.map((t) => t.direction)], ['RECV_ONLY', ['receive']]);
    for (const [toRoomId, more] of [[7], [''], ['x', { mode: 'SINGING' }]]) {
      const order = { roomId: 'there', peerId: 'ada', toRoomId, ...more };
      await assert.rejects(service.control('switchRoom', order), /400/);
    }
  });
});
