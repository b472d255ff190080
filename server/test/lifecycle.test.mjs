import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('entering and leaving', () => {
  let service;
  before(async () => {
    service = await openService({ batch: 150 });
  });
  after(() => service.close());

  const asking = () => service.token({ permissions: ['ask_join'] });

  it('lets the moderators decide who asked', async () => {
    const roomId = 'ask';
    const ada = service.client('ada', { roomId });
    await ada.join();
    const eve = service.client('eve', { roomId, token: asking() });
    const entry = eve.enter();
    assert.deepEqual(await ada.next('entryRequested'), { id: 'eve', name: 'eve' });
    const early = await eve.request('getRouterRtpCapabilities');
    assert.deepEqual([early.status, early.errorCode], ['error', 403]);

    // A second moderator who comes later hears of the request, and then of the decision.
    const bob = service.client('bob', { roomId });
    await bob.join();
    assert.deepEqual(await bob.next('entryRequested'), { id: 'eve', name: 'eve' });
    await ada.ok('respondEntry', { id: 'eve', decision: 'denied' });
    const denied = await entry;
    const { id, decision, sessionId } = denied;
    assert.deepEqual([id, decision, typeof sessionId], ['eve', 'denied', 'string']);
    assert.deepEqual(await bob.next('entryResponded'), denied);
    const refusal = async (peer, method, data) => (await peer.request(method, data)).errorCode;
    const allow = { id: 'eve', decision: 'allowed' };
    assert.equal(await refusal(bob, 'respondEntry', allow), 404);
    assert.equal(await refusal(eve, 'join', eve.joinData()), 403);

    await eve.ok('requestEntry', { name: 'Eve' });
    assert.deepEqual(await bob.next('entryRequested'), { id: 'eve', name: 'Eve' });
    await bob.ok('respondEntry', allow);
    assert.equal((await eve.next('entryResponded')).decision, 'allowed');
    assert.equal(await refusal(eve, 'respondEntry', allow), 409);
    await eve.ok('join', eve.joinData());
    for (const method of ['respondEntry', 'closeRoom'])
      assert.equal(await refusal(eve, method, allow), 403);
  });

  it('sends the first device away when a second one connects', async () => {
    const roomId = 'twice';
    const bob = service.client('bob', { roomId });
    await bob.join();
    const first = service.client('ada', { roomId, reconnection: false });
    await first.join();
    const second = service.client('ada', { roomId });
    assert.deepEqual(await first.next('error'), { code: 4005 });
    assert.deepEqual(await first.next('close'), { reason: { code: 1011 } });
    assert.deepEqual(await bob.next('peerClosed'), { peerId: 'ada', reason: { code: 1011 } });
    assert.equal((await first.request('requestEntry', { name: 'ada' })).status, 'error');
    await second.join();
    await first.next('disconnect');
    await bob.next('newPeer', ({ id }) => id === 'ada');
    await bob.next('newPeer', ({ id }) => id === 'ada');
    assert.deepEqual(bob.seen('peerClosed'), []);
  });

  it('takes one who drops and returns for the same, and one who stays away for gone', async () => {
    const roomId = 'drop';
    const bob = service.client('bob', { roomId });
    await bob.join();
    const ada = service.client('ada', { roomId });
    await ada.join();
    await ada.produce('audio');
    await bob.next('newPeer');
    const first = await bob.next('newConsumer');
    await service.control('dropSocket', { roomId, peerId: 'ada' });
    assert.equal(await ada.next('disconnect'), 'transport close');
    assert.deepEqual((await ada.join()).peers.map((peer) => peer.id), ['bob']);
    assert.equal((await bob.next('consumerClosed')).consumerId, first.id);
    await ada.produce('audio');
    await bob.next('newConsumer');
    assert.deepEqual([...bob.seen('newPeer'), ...bob.seen('peerClosed')], []);

    await service.control('refuseConnections', { roomId, peerId: 'ada', count: 10000 });
    await service.control('dropSocket', { roomId, peerId: 'ada', how: 'close' });
    await ada.next('connect_error');
    assert.deepEqual(await bob.next('peerClosed'), { peerId: 'ada', reason: { code: 1001 } });
    await service.control('clearFaults');
    await ada.join();
    await bob.next('newPeer');
  });

  it('closes the room for all, and the next one of that name is another', async () => {
    const roomId = 'close';
    const clients = ['ada', 'bob'].map((id) => service.client(id, { roomId, reconnection: false }));
    for (const client of clients) await client.join();
    const [{ sessionId }] = (await service.control('rooms', { roomId })).rooms;
    await clients[0].ok('closeRoom', { leaveReason: 'Participant manually left the meeting' });
    for (const client of clients) {
      assert.deepEqual(await client.next('close'), { reason: { code: 1006 } });
      assert.equal(await client.next('disconnect'), 'io server disconnect');
    }
    assert.deepEqual((await service.control('rooms', { roomId })).rooms, []);
    const again = service.client('ada', { roomId });
    assert.notEqual((await again.enter()).sessionId, sessionId);
    again.socket.disconnect();
    await until(async () => (await service.control('rooms', { roomId })).rooms.length === 0);
  });

  it('batches in order and never lets a consumer overtake its participant', async () => {
    const roomId = 'batch';
    const bob = service.client('bob', { roomId });
    await bob.join({ batchingEnabled: true });
    for (const data of [1, 2, 3])
      await service.control('notify', { roomId, peerId: 'bob', method: 'x', data });
    assert.deepEqual([await bob.next('x'), await bob.next('x'), await bob.next('x')], [1, 2, 3]);
    assert.deepEqual(bob.seen('notification'), []);
    const ada = service.client('ada', { roomId });
    await ada.join();
    await ada.produce('audio');
    await bob.next('newConsumer');
    const order = bob.events.map((event) => event.method);
    for (const earlier of ['newPeer', 'participantMediaStateChanged'])
      assert.ok(order.includes(earlier), `${order}`);
    await ada.ok('pinStateChanged', { peerId: 'bob', state: { cam: true, share: true } });
    await ada.ok('changeMode', { mode: 'VIEWER' });
    await bob.next('peerModeChanged');
    const batches = bob.seen('batch').flat();
    const [peer, media, pin] = ['newPeer', 'participantMediaStateChanged', 'pinStateChanged'];
    const interesting = batches.filter((method) => [peer, media, pin].includes(method));
    assert.deepEqual(interesting, [peer, media, pin, media]);
  });

  it('survives the death of its media worker', async (t) => {
    const own = await openService();
    t.after(() => own.close());
    const ada = own.client('ada');
    await ada.join();
    const [pid] = (await own.control('rooms')).workers;
    process.kill(pid, 'SIGKILL');
    assert.deepEqual(await ada.next('close'), { reason: { code: 1007 } });
    await until(async () => (await own.control('rooms')).workers.some((other) => other !== pid));
    const bob = own.client('bob');
    await bob.join();
  });
});
