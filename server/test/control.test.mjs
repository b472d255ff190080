import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { MODES, RECEIVING, SENDING } from '../lib/read.mjs';
import { openService, until } from './support.mjs';

describe('modes and held streams', () => {
  let service;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  const peerState = async (roomId, peerId) =>
    (await service.control('rooms', { roomId })).rooms[0].peers.find((peer) => peer.id === peerId);
  const directionsOf = (mode) => [
    ...(RECEIVING.includes(mode) ? ['receive'] : []),
    ...(SENDING.includes(mode) ? ['send'] : []),
  ];

  it('changes from every mode to every other', async () => {
    const roomId = 'modes';
    const bob = service.client('bob', { roomId });
    await bob.join();
    const voice = await bob.produce('audio');
    const ada = service.client('ada', { roomId, mode: 'VIEWER' });
    await ada.join();
    let has = [];
    // The client sets up what a mode adds before it asks for the mode.
    async function change(mode) {
      const wanted = directionsOf(mode);
      for (const direction of wanted) if (!has.includes(direction)) await ada.transport(direction);
      const receives = wanted.includes('receive') && !has.includes('receive');
      const publishes = wanted.includes('send') && !has.includes('send');
      const silences = has.includes('send') && !wanted.includes('send');
      has = wanted;
      assert.equal((await ada.ok('changeMode', { mode })).mode, mode);
      for (const peer of [ada, bob]) {
        assert.deepEqual(await peer.next('peerModeChanged'), { peerId: 'ada', mode });
      }
      if (receives) assert.equal((await ada.next('newConsumer')).producerId, voice.id);
      if (publishes) {
        await ada.produce('video');
        await bob.next('newConsumer');
      }
      if (silences) await bob.next('consumerClosed');
      const state = await peerState(roomId, 'ada');
      assert.deepEqual(state.transports.map((t) => t.direction).sort(), wanted, mode);
      assert.equal(state.producers.length, wanted.includes('send') ? 1 : 0);
      assert.equal(state.consumers.length, wanted.includes('receive') ? 1 : 0);
    }
    for (const from of MODES) {
      for (const to of MODES) {
        await change(from);
        await change(to);
      }
    }
    await change('CONFERENCE');
    await service.control('changeMode', { roomId, peerId: 'ada', mode: 'VIEWER' });
    for (const peer of [ada, bob]) {
      assert.deepEqual(await peer.next('peerModeChanged'), { peerId: 'ada', mode: 'VIEWER' });
    }
    await bob.next('consumerClosed');
    assert.deepEqual((await peerState(roomId, 'ada')).transports, []);
    await assert.rejects(service.control('changeMode', { roomId, peerId: 'ada' }), /400/);
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

});

describe('outages', () => {
  let service;
  before(async () => {
    service = await openService({ grace: 20000 });
  });
  after(() => service.close());

  const rooms = async () => (await service.control('rooms')).rooms;

  it('drops the connections of a meeting, or all of them', async () => {
    const clients = [];
    for (const [peerId, roomId] of [
      ['ada', 'left'],
      ['bob', 'left'],
      ['eve', 'right'],
    ]) {
      const client = service.client(peerId, { roomId, reconnection: false });
      await client.join();
      clients.push(client);
    }
    await service.control('dropSocket', { roomId: 'left', how: 'disconnect' });
    await Promise.all(clients.slice(0, 2).map((client) => client.next('disconnect')));
    assert.equal(clients[2].socket.connected, true);
    await service.control('dropSocket', {});
    await clients[2].next('disconnect');
    await assert.rejects(service.control('dropSocket', { roomId: 'left', peerId: 'ada' }), /409/);
    await assert.rejects(service.control('dropSocket', { how: 'constructor' }), /404/);
    for (const roomId of ['left', 'right']) await service.control('closeRoom', { roomId });
  });

  it('goes down and comes back with or without its meetings', async () => {
    for (const keepRooms of [true, false]) {
      const roomId = `restart-${keepRooms}`;
      const clients = ['ada', 'bob'].map((id) => service.client(id, { roomId }));
      for (const client of clients) await client.join();
      const [{ sessionId }] = await rooms();
      await service.control('restart', { downMs: 1000, keepRooms });
      for (const client of clients) {
        assert.equal(await client.next('disconnect'), 'transport close');
        await client.next('connect_error');
      }
      for (const client of clients) client.events.length = 0;
      await Promise.all(clients.map((client) => client.join()));
      const [room, ...others] = await rooms();
      assert.deepEqual([room.sessionId === sessionId, others], [keepRooms, []]);
      assert.equal(room.peers.length, 2);
      const news = clients.flatMap((client) => client.seen('newPeer'));
      assert.equal(news.length, keepRooms ? 0 : 1);
      for (const client of clients) client.socket.disconnect();
      await until(async () => (await rooms()).length === 0);
    }
    for (const downMs of [-1, 'x', 1e9]) {
      await assert.rejects(service.control('restart', { downMs }), /400/);
    }
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
