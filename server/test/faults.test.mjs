import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, post, until } from './support.mjs';

const RUBBISH = [
  null,
  7,
  'text',
  [],
  [[]],
  {},
  { method: 'join' },
  { method: { toString: 1 }, roomId: 'room' },
  { method: '__proto__', roomId: 'room', data: {} },
  { method: 'constructor', roomId: 'room', data: {} },
  { method: 'join', roomId: 'other', data: {} },
  { method: 'join', roomId: 'room', data: 'x' },
  { method: 'startSinging', roomId: 'room', data: {} },
];

const ODD_OBJECTS = [{}, { codecs: 5 }, { fingerprints: [{}] }];
const ODD_VALUES = [null, -1, 1e300, true, 'x'.repeat(100000), [], [null], ...ODD_OBJECTS];

// For each request the keys it reads; each in turn gets every odd value, the others stay good.
const REQUESTS = {
  requestEntry: ['name'],
  definePeerLeftReason: ['leaveReason'],
  respondEntry: ['id', 'decision'],
  removePeer: ['peerId'],
  createWebRtcTransport: ['preferredProtocol', 'producing', 'consuming'],
  connectWebRtcTransport: ['transportId', 'dtlsParameters'],
  iceRestarted: ['transportId'],
  produce: ['transportId', 'kind', 'rtpParameters', 'appData'],
  closeProducer: ['producerId'],
  pauseConsumer: ['consumerId'],
  pauseAllConsumers: ['kind'],
  setConsumerPreferredLayers: ['consumerId', 'spatialLayer', 'temporalLayer'],
  changeMode: ['mode'],
  enablePeerMic: ['peerId'],
  pinStateChanged: ['peerId', 'state'],
};

describe('odd input and injected faults', () => {
  let service;
  before(async () => {
    service = await openService({ ackTimeout: 300 });
  });
  after(() => service.close());

  it('answers rubbish with an error and goes on', async () => {
    const ada = service.client('ada');
    const bob = service.client('bob');
    await ada.join();
    await bob.join();
    for (const item of RUBBISH) {
      assert.equal((await ada.raw(item)).data.status, 'error', JSON.stringify(item));
    }
    const producer = await bob.produce('audio');
    const { id: consumerId } = await ada.next('newConsumer');
    const good = {
      name: 'ada',
      leaveReason: 'x',
      id: 'ada',
      decision: 'allowed',
      peerId: 'bob',
      preferredProtocol: 'UDP_ONLY',
      producing: true,
      consuming: false,
      transportId: ada.send.id,
      kind: 'audio',
      dtlsParameters: { role: 'client', fingerprints: [{ algorithm: 'sha-256', value: 'AA' }] },
      rtpParameters: producer.rtpParameters,
      appData: {},
      producerId: producer.id,
      consumerId,
      spatialLayer: 0,
      temporalLayer: 0,
      mode: 'SEND_AND_RECV',
      state: { cam: true, share: true },
    };
    for (const [method, keys] of Object.entries(REQUESTS)) {
      for (const key of keys) {
        const data = Object.fromEntries(keys.map((name) => [name, good[name]]));
        for (const odd of [...ODD_VALUES, undefined]) {
          if (key === 'appData' && odd?.constructor === Object) continue;
          if (odd === true && key === 'producing') continue;
          const answer = await ada.request(method, { ...data, [key]: odd });
          const what = `${method} ${key} ${JSON.stringify(odd)?.slice(0, 50)}`;
          assert.equal(answer.status, 'error', what);
          assert.equal(typeof answer.message, 'string');
        }
      }
    }
    for (const key of Object.keys(ada.joinData())) {
      const eve = service.client(`eve-${key}`);
      await eve.enter();
      for (const odd of ODD_VALUES) await eve.request('join', eve.joinData({ [key]: odd }));
      eve.socket.disconnect();
    }
    ada.socket.emit('request');
    ada.socket.emit('request', undefined, 'no acknowledgement');
    ada.socket.emit('unheard', { of: 1 });
    await bob.ok('pinStateChanged', { peerId: 'ada', state: good.state });
    await ada.next('pinStateChanged');
  });

  it('cuts off a message that is far too long, and only its sender', async () => {
    const roomId = 'long';
    const ada = service.client('ada', { roomId, reconnection: false });
    const bob = service.client('bob', { roomId });
    await ada.join();
    await bob.join();
    ada.socket.emit('request', { method: 'join', roomId, data: { displayName: 'x'.repeat(5e6) } });
    await ada.next('disconnect');
    assert.deepEqual(await bob.next('peerClosed'), { peerId: 'ada', reason: { code: 1001 } });
  });

  it('delays, swallows and falsifies acknowledgements', async () => {
    const roomId = 'acks';
    const ada = service.client('ada', { roomId });
    await service.control('refuseEntry', { roomId, how: 'answer', errorCode: 4024 });
    await service.control('refuseEntry', { roomId });
    await ada.next('connectionSuccess');
    assert.equal((await ada.request('requestEntry', { name: 'ada' })).errorCode, 4024);
    await ada.ok('requestEntry', { name: 'ada' });
    assert.equal((await ada.next('entryResponded')).decision, 'denied');
    await ada.ok('requestEntry', { name: 'ada' });
    assert.equal((await ada.next('entryResponded')).decision, 'allowed');

    const late = { method: 'getRouterRtpCapabilities', ms: 1000 };
    await service.control('delayAck', { roomId, peerId: 'ada', ...late });
    const order = [];
    await Promise.all([
      ada.ok('getRouterRtpCapabilities').then(() => order.push('slow')),
      ada.ok('getRouterRtpCapabilities').then(() => order.push('quick')),
    ]);
    assert.deepEqual(order, ['quick', 'slow']);

    await service.control('swallowAck', { roomId, method: 'join' });
    const item = { method: 'join', roomId, request: true, data: ada.joinData() };
    await assert.rejects(ada.socket.timeout(200).emitWithAck('request', item));
    const state = async () => (await service.control('rooms', { roomId })).rooms[0].peers[0];
    await until(async () => (await state()).joined);

    await service.control('answerWrong', { roomId, method: 'produce', answer: { data: [1] } });
    assert.deepEqual(await ada.raw({ method: 'produce', roomId, data: {} }), { data: [1] });
    assert.equal((await ada.request('produce')).status, 'error');

    const wrong = { method: 'changeMode', answer: 5, alsoRun: true };
    await service.control('answerWrong', { roomId, ...wrong });
    assert.equal(await ada.raw({ method: 'changeMode', roomId, data: { mode: 'VIEWER' } }), 5);
    assert.equal((await state()).mode, 'VIEWER');
  });

  it('keeps the control endpoint to those who have its key', async () => {
    const { ready, ca } = service;
    for (const authorization of [undefined, '', 'wrong', service.token()]) {
      const headers = authorization === undefined ? {} : { authorization };
      assert.equal((await post(ca, `${ready.control}/rooms`, { body: {}, headers })).status, 401);
    }
    await assert.rejects(service.control('nothing'), /404/);
    await assert.rejects(service.control('__proto__'), /404/);
    await assert.rejects(service.control('emit', { roomId: 'none' }), /404/);
    await assert.rejects(service.control('delayAck', { count: 'x' }), /400/);
    await assert.rejects(service.control('rooms', []), /400/);
  });
});
