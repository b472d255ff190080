import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('held streams and codecs', () => {
  let service;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  const peerState = async (roomId, peerId) =>
    (await service.control('rooms', { roomId })).rooms[0].peers.find((peer) => peer.id === peerId);

  it('leaves a consumer paused whose announcement is not acknowledged', async (t) => {
    const short = await openService({ ackTimeout: 50 });
    t.after(() => short.close());
    const [ada, bob] = ['ada', 'bob'].map((id) => short.client(id));
    bob.acknowledge = false;
    await ada.join();
    await bob.join();
    await ada.produce('audio');
    await bob.next('newConsumer');
    await until(() => short.lines.some((line) => line.includes('a consumer stays paused')));
    const { rooms } = await short.control('rooms');
    assert.equal(rooms[0].peers.find((p) => p.id === 'bob').consumers[0].paused, true);
  });

  it('lets a stream run only when nobody holds it', async () => {
    const roomId = 'held';
    const [ada, bob] = ['ada', 'bob'].map((id) => service.client(id, { roomId }));
    await ada.join();
    await bob.join();
    await ada.produce('video', { appData: { share: true } });
    const { id: consumerId } = await bob.next('newConsumer');
    const bobs = { roomId, peerId: 'bob' };
    const held = async () => {
      const { heldBy, paused } = (await peerState(roomId, 'bob')).consumers[0];
      assert.equal(paused, heldBy.length > 0);
      return heldBy.join();
    };
    await until(async () => (await held()) === '');
    const managed = (reason) => ({ peerId: 'ada', kind: 'share', reason, consumerId });
    await service.control('pauseBySubManager', { ...bobs, consumerId, reason: 'small tile' });
    assert.deepEqual(await bob.next('consumerPausedSubManager'), managed('small tile'));
    await bob.ok('resumeConsumer', { consumerId });
    assert.equal(await held(), 'manager');
    await bob.ok('pauseAllConsumers', { kind: 'share' });
    await service.control('resumeBySubManager', { ...bobs, kind: 'share', ofPeerId: 'ada' });
    assert.deepEqual(await bob.next('consumerResumedSubManager'), managed(''));
    assert.equal(await held(), 'peer');
    await bob.ok('resumeAllConsumers', { kind: 'all' });
    assert.equal(await held(), '');

    await bob.ok('enableAdaptiveSubscription');
    assert.equal((await peerState(roomId, 'bob')).adaptive, true);
    await service.control('pauseBySubManager', { ...bobs, kind: 'share' });
    await bob.ok('disableAdaptiveSubscription');
    await bob.next('consumerResumedSubManager');
    assert.equal(await held(), '');

    for (const [action, event] of [
      ['pauseProducer', 'consumerPaused'],
      ['resumeProducer', 'consumerResumed'],
      ['closeProducer', 'consumerClosed'],
    ]) {
      bob.events.length = 0;
      await service.control(action, { roomId, peerId: 'ada', kind: 'share' });
      assert.deepEqual(await bob.next(event), { consumerId });
    }
    await assert.rejects(service.control('pauseConsumer', { ...bobs, consumerId }), /404/);
    await assert.rejects(service.control('pauseConsumer', bobs), /400/);
  });

  it('tells everybody what a newcomer cannot decode until it is gone', async () => {
    const roomId = 'codecs';
    const isVp9 = ({ codec }) => codec === 'video/VP9';
    const ada = service.client('ada', { roomId });
    await ada.join();
    const { codecs } = ada.device.rtpCapabilities;
    const bob = service.client('bob', { roomId });
    await bob.join({ rtpCapabilities: { codecs: codecs.filter((c) => !/VP9/.test(c.mimeType)) } });
    const told = await ada.next('unsupportedCodecAdded', isVp9);
    assert.deepEqual(told, { consumerPeerId: 'bob', kind: 'video', codec: 'video/VP9' });
    const codec = codecs.find(({ mimeType }) => mimeType === 'video/VP9');
    await ada.produce('video', { codec });
    await ada.next('unsupportedCodecAdded', isVp9);
    const eve = service.client('eve', { roomId, mode: 'SIGNALLING_ONLY' });
    assert.ok((await eve.join({ rtpCapabilities: {} })).unsupportedCodecs.includes('video/VP9'));
    await service.control('offerCodecs', { roomId, peerId: 'carl', codecs: ['video/VP8'] });
    const carl = service.client('carl', { roomId });
    await carl.enter();
    const offered = await carl.ok('getRouterRtpCapabilities');
    const names = offered.codecs.map(({ mimeType }) => mimeType);
    assert.deepEqual(names, ['audio/opus', 'video/VP8', 'video/rtx']);
    assert.ok((await carl.ok('getRouterRtpCapabilities')).codecs.length > names.length);
    await service.control('setUnsupportedCodecs', { roomId, codecs: ['AV1'] });
    assert.deepEqual((await carl.ok('join', carl.joinData())).unsupportedCodecs, ['AV1']);
    await service.control('setUnsupportedCodecs', { roomId });
    for (const codecs of [undefined, 'video/VP8', ['video/XY']]) {
      await assert.rejects(service.control('offerCodecs', { roomId, codecs }), /400/);
    }
    bob.socket.disconnect();
    await eve.next('peerClosed');
    const dan = service.client('dan', { roomId });
    assert.ok(!(await dan.join()).unsupportedCodecs.includes('video/VP9'));
    const aboutEve = ada.seen('unsupportedCodecAdded').filter((d) => d.consumerPeerId === 'eve');
    assert.deepEqual(aboutEve, [], 'one who receives nothing limits nobody');
  });

  it('ends for good while it is down', async () => {
    const own = await openService();
    const ada = own.client('ada');
    await ada.join();
    await own.control('restart', { downMs: 60000, keepRooms: true });
    await ada.next('connect_error');
    await own.close();
  });
});
