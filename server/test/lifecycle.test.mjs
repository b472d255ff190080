import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('entering and leaving', () => {
  let service;
  before(async () => {
    service = await openService({ batch: 150 });
  });
  after(() => service.close());

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
