import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

const LAYERS = [{ maxBitrate: 100000 }, { maxBitrate: 300000 }, { maxBitrate: 900000 }].map(
  (layer, i) => ({ ...layer, rid: 'qhf'[i], scalabilityMode: 'L1T3' }),
);

describe('a meeting', () => {
  let service;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  const peerState = async (roomId, peerId) =>
    (await service.control('rooms', { roomId })).rooms[0].peers.find((peer) => peer.id === peerId);

  it('carries producers to everybody and takes them back', async () => {
    const roomId = 'carry';
    const ada = service.client('ada', { roomId });
    assert.deepEqual((await ada.join()).peers, []);
    const audio = await ada.produce('audio');
    const camera = await ada.produce('video', { encodings: LAYERS, codecOptions: {} });
    const share = await ada.produce('video', { appData: { share: true } });

    const bob = service.client('bob', { roomId });
    const joined = await bob.join();
    const metaData = { enableAgentEvents: true };
    const about = { id: 'ada', displayName: 'ada', device: 'test', metaData };
    assert.deepEqual(joined.peers, [{ ...about, mode: 'SEND_AND_RECV' }]);
    assert.equal((await ada.next('newPeer')).id, 'bob');
    const offers = [];
    for (let i = 0; i < 3; i += 1) offers.push(await bob.next('newConsumer'));
    assert.deepEqual(
      offers.map((o) => [o.producerId, o.kind, o.peerId, o.type, o.appData.share ?? false]),
      [
        [audio.id, 'audio', 'ada', 'simple', false],
        [camera.id, 'video', 'ada', 'simulcast', false],
        [share.id, 'video', 'ada', 'simple', true],
      ],
    );
    const [, video] = offers;
    await until(async () => (await peerState(roomId, 'bob')).consumers.every((c) => !c.paused));
    const state = (await peerState(roomId, 'bob')).consumers.find((c) => c.id === video.id);
    assert.deepEqual(state.preferredLayers, { spatialLayer: 2, temporalLayer: 2 });

    const low = { consumerId: video.id, spatialLayer: 0, temporalLayer: 2 };
    await bob.ok('setConsumerPreferredLayers', low);
    await bob.ok('pauseConsumer', { consumerId: video.id });
    assert.deepEqual(await bob.next('consumerPaused'), { consumerId: video.id });
    const paused = (await peerState(roomId, 'bob')).consumers.find((c) => c.id === video.id);
    assert.deepEqual([paused.paused, paused.preferredLayers.spatialLayer], [true, 0]);
    const all = await bob.ok('resumeAllConsumers', { kind: 'video' });
    assert.deepEqual(all.consumersWithIssues, []);
    assert.deepEqual(await bob.next('consumerResumed'), { consumerId: video.id });
    assert.deepEqual(bob.seen('consumerResumed'), []);

    await ada.ok('closeProducer', { producerId: share.id });
    assert.equal((await bob.next('consumerClosed')).consumerId, offers[2].id);
    const closed = { peerId: 'ada', kind: 'share', newState: false };
    assert.deepEqual(await bob.next('participantMediaStateChanged'), closed);
    assert.equal((await ada.request('closeProducer', { producerId: share.id })).status, 'error');

    await ada.ok('changeMode', { mode: 'RECV_ONLY' });
    assert.deepEqual(await bob.next('peerModeChanged'), { peerId: 'ada', mode: 'RECV_ONLY' });
    await bob.next('consumerClosed');
    await bob.next('consumerClosed');

    const data = { leaveReason: 'MANUAL_LEAVE_CALLED' };
    ada.socket.emit('request', { method: 'definePeerLeftReason', roomId, request: true, data });
    ada.socket.disconnect();
    assert.deepEqual(await bob.next('peerClosed'), { peerId: 'ada', reason: { code: 1101 } });
    assert.deepEqual(bob.seen('consumeFailed'), []);
  });

  it('offers what is there once the mode receives, not at the transport made for it', async () => {
    const roomId = 'late';
    const ada = service.client('ada', { roomId });
    await ada.join();
    const producer = await ada.produce('audio');
    const bob = service.client('bob', { roomId, mode: 'VIEWER' });
    await bob.join();
    await bob.transport('receive');
    assert.deepEqual(bob.seen('newConsumer'), []);
    await bob.ok('changeMode', { mode: 'RECV_ONLY' });
    assert.equal((await bob.next('newConsumer')).producerId, producer.id);
    const wrong = { transportId: bob.receive.id, kind: 'audio' };
    assert.equal((await bob.request('produce', wrong)).status, 'error');
  });

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

  it('restarts ICE, by itself and when it is asked', async () => {
    const roomId = 'ice';
    const ada = service.client('ada', { roomId });
    await ada.join();
    const before = (await peerState(roomId, 'ada')).transports.map((t) => t.id);
    const which = { roomId, peerId: 'ada', direction: 'receive' };
    const order = await service.control('restartIce', which);
    const event = await ada.next('restartIce');
    assert.deepEqual(event, { transportId: ada.receive.id, iceParameters: order.iceParameters });
    await ada.receive.restartIce(event);
    await ada.ok('iceRestarted', { transportId: event.transportId });
    const fragments = [event.iceParameters.usernameFragment];
    for (const transportId of [ada.send.id, ada.send.id, ada.receive.id]) {
      const answer = await ada.ok('restartIce', { transportId });
      assert.equal(answer.transportId, transportId);
      fragments.push(answer.iceParameters.usernameFragment);
    }
    assert.equal(new Set(fragments).size, 4);
    for (const method of ['restartIce', 'iceRestarted'])
      assert.equal((await ada.request(method, { transportId: 'nothing' })).errorCode, 404);
    const { transports } = await peerState(roomId, 'ada');
    assert.deepEqual(transports.map((t) => t.id), before);
  });

  it('relays pins and requests about microphones and cameras', async () => {
    const roomId = 'relay';
    const ada = service.client('ada', { roomId });
    const token = service.token({ permissions: ['allow_join'] });
    const bob = service.client('bob', { roomId, token });
    await ada.join();
    await bob.join();
    for (const [request, event] of [
      ['enablePeerMic', 'enableMic'],
      ['disablePeerMic', 'disableMic'],
      ['enablePeerWebcam', 'enableWebcam'],
      ['disablePeerWebcam', 'disableWebcam'],
    ]) {
      await ada.ok(request, { peerId: 'bob' });
      assert.deepEqual(await bob.next(event), { peerId: 'bob', byPeerId: 'ada' });
      assert.equal((await bob.request(request, { peerId: 'ada' })).errorCode, 403);
    }
    const state = { cam: true, share: false };
    await bob.ok('pinStateChanged', { peerId: 'ada', state });
    for (const peer of [ada, bob]) {
      const pin = { peerId: 'ada', state, pinnedBy: 'bob' };
      assert.deepEqual(await peer.next('pinStateChanged'), pin);
    }
    await ada.ok('removePeer', { peerId: 'bob' });
    assert.deepEqual(await bob.next('close'), { reason: { code: 1002 } });
    assert.deepEqual(await ada.next('peerClosed'), { peerId: 'bob', reason: { code: 1002 } });
  });
});
