import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as https from 'node:https';
import { buffer } from 'node:stream/consumers';
import { after, before, describe, it } from 'node:test';
import { PubSubClient, texts } from './pubsub-client.mjs';
import { openService, post } from './support.mjs';

describe('topics on the signalling connection', () => {
  let service;
  before(async () => {
    service = await openService({ pubsubUrl: 'off' });
  });
  after(() => service.close());

  const publish = (client, topic, message, options = {}, payload = {}) =>
    client.ok('pubsubPublish', { topic, message, options, payload });

  it('share their messages with the WebSocket', async () => {
    const roomId = 'routes';
    const ada = service.client('ada', { roomId });
    assert.ok(!('pubSubUrl' in (await ada.join())));
    await service.control('setPubSubUrl', { roomId, peerId: 'bob', url: true });
    const bob = await PubSubClient.of(service.client('bob', { roomId }));
    await publish(ada, 't', 'stored', { persist: true, unknown: 1 }, { a: [1] });
    await publish(ada, 't', 'for bob', { persist: true, sendOnly: ['bob'] });
    await publish(ada, 't', 'not stored');
    const { messages } = await ada.ok('pubsubSubscribe', { topic: 't' });
    const [{ id, timestamp, ...stored }] = messages;
    assert.ok(id && !Number.isNaN(Date.parse(timestamp)));
    const wanted = { topic: 't', message: 'stored', senderId: 'ada', senderName: 'ada' };
    assert.deepEqual(stored, { ...wanted, payload: { a: [1] }, sendOnly: [] });
    assert.equal(messages.length, 1);
    await bob.subscribe('t', { oldMessageLimit: -1, requestId: 'all' });
    const [history] = await bob.replay('all');
    assert.deepEqual(texts(history.messages), ['stored', 'for bob']);
    assert.equal(`${history.messages[0].payload}`, '{"a":[1]}');

    const odd = { payload: Buffer.from('[not json'), messageId: 'm1', timestamp: 'then' };
    await bob.publish('t', 'over there', { ...odd, sendOnly: ['ada'], senderName: 'Bob' });
    assert.deepEqual(await ada.next('pubsubMessage'), {
      ...{ id: 'm1', topic: 't', message: 'over there', senderId: 'bob', senderName: 'Bob' },
      ...{ timestamp: 'then', payload: {}, sendOnly: ['ada'] },
    });
    await publish(ada, 't', 'half \ud800');
    assert.deepEqual(texts(await bob.live('t', 1)), ['half \ufffd']);
    assert.equal((await ada.next('pubsubMessage')).message, 'half \ufffd');
    // The last listener of a topic is gone: on whichever route the client says so.
    await bob.ok('unsubscribe', { topic: 't' });
    await ada.ok('pubsubUnsubscribe', { topic: 't' });
    await ada.ok('pubsubSubscribe', { topic: 'end' });
    await bob.publish('t', 'unheard');
    await bob.publish('end', 'heard');
    assert.equal((await ada.next('pubsubMessage')).message, 'heard');
    const subscribers = async () => {
      const { topics } = (await service.control('rooms', { roomId })).rooms[0].pubsub;
      return topics.map((one) => [one.topic, ...one.signalled, ...one.subscribers]);
    };
    assert.deepEqual(await subscribers(), [['t'], ['end', 'ada']]);
    await service.control('removePeer', { roomId, peerId: 'ada' });
    assert.deepEqual(await subscribers(), [['t'], ['end']]);
  });

  it('end with either route, and with the connection', async () => {
    const roomId = 'ends';
    const ada = service.client('ada', { roomId });
    await service.control('setPubSubUrl', { roomId, url: true, count: 2 });
    const socket = await PubSubClient.of(ada);
    const state = async () => {
      const { topics } = (await service.control('rooms', { roomId })).rooms[0].pubsub;
      return topics.map(({ signalled, subscribers }) => [signalled.length, subscribers.length]);
    };
    for (const end of [
      () => socket.ok('unsubscribe', { topic: 't' }),
      () => ada.ok('pubsubUnsubscribe', { topic: 't' }),
    ]) {
      await socket.subscribe('t');
      await ada.ok('pubsubSubscribe', { topic: 't' });
      assert.deepEqual(await state(), [[1, 1]]);
      await end();
      assert.deepEqual(await state(), [[0, 0]]);
    }
    await ada.ok('pubsubSubscribe', { topic: 't' });
    await service.control('dropSocket', { roomId });
    await ada.next('disconnect');
    await ada.join();
    assert.deepEqual(await state(), [[0, 0]]);
  });

  it('answer what is odd with an error', async () => {
    const ada = service.client('ada', { roomId: 'odd' });
    await ada.join();
    const good = { topic: 't', message: 'm', options: {}, payload: {} };
    const odd = { topic: ['', 7, 'x'.repeat(2000)], message: [7, null], payload: [[], 'x'] };
    odd.options = [[], { persist: 1 }, { sendOnly: 'ada' }, { sendOnly: [1] }];
    for (const [key, values] of Object.entries(odd)) {
      for (const value of [...values, undefined]) {
        const { status, message } = await ada.request('pubsubPublish', { ...good, [key]: value });
        assert.ok(status === 'error' && message, `${key} ${JSON.stringify(value)}`);
      }
    }
    assert.equal((await ada.request('pubsubSubscribe', { topic: 7 })).status, 'error');
    await publish(ada, 't', 'x'.repeat(100_000));
  });
});

describe('the store of a meeting', () => {
  let service;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  it('tells observers of every change, also after a drop, until they leave', async () => {
    const roomId = 'store';
    const [ada, bob] = ['ada', 'bob'].map((peerId) => service.client(peerId, { roomId }));
    await ada.join();
    await bob.join();
    await ada.ok('realtimeStoreObserve', { key: 'k' });
    await ada.ok('realtimeStoreObserve', { key: 'k' });
    assert.equal((await bob.ok('realtimeStoreGet', { key: 'k' })).value, null);
    const changes = [];
    const set = async (client, key, value) => {
      await client.ok('realtimeStoreSet', { key, value });
      if (key === 'k') changes.push({ key, value, updatedBy: client.peerId });
    };
    await set(bob, 'k', 'é'.repeat(512));
    await set(bob, 'unobserved', '');
    await set(ada, 'k', '__proto__');
    await set(bob, 'k', null);
    for (const change of changes.splice(0))
      assert.deepEqual(await ada.next('realtimeStoreValueChanged'), change);
    await service.control('dropSocket', { roomId, peerId: 'ada' });
    await ada.next('disconnect');
    await ada.join();
    await set(bob, 'k', 'after');
    assert.deepEqual(await ada.next('realtimeStoreValueChanged'), changes[0]);
    await service.control('setStoreValue', { roomId, key: 'k', value: true });
    const made = { key: 'k', value: true, updatedBy: 'service' };
    assert.deepEqual(await ada.next('realtimeStoreValueChanged'), made);
    assert.equal((await ada.ok('realtimeStoreGet', { key: 'k' })).value, true);
    await ada.ok('realtimeStoreStopObserve', { key: 'k' });
    await ada.ok('realtimeStoreStopObserve', { key: 'k' });
    await set(bob, 'k', 'unheard');
    assert.deepEqual(ada.seen('realtimeStoreValueChanged'), []);
    assert.deepEqual(bob.seen('realtimeStoreValueChanged'), []);
    await ada.ok('realtimeStoreObserve', { key: 'k' });
    await service.control('removePeer', { roomId, peerId: 'ada' });
    const { store } = (await service.control('rooms', { roomId })).rooms[0];
    assert.deepEqual(store, { values: { k: 'unheard', unobserved: '' }, observers: {} });
  });

  it('keeps its limits', async () => {
    const ada = service.client('ada', { roomId: 'limits' });
    await ada.join();
    const set = async (data) => (await ada.request('realtimeStoreSet', data)).errorCode;
    assert.equal(await set({ key: 'k', value: 'x'.repeat(1025) }), 413);
    assert.equal(await set({ key: 'k', value: '€'.repeat(342) }), 413);
    for (const value of [7, {}, undefined]) assert.equal(await set({ key: 'k', value }), 400);
    for (const key of ['', 7, undefined, 'x'.repeat(2000)]) {
      assert.equal(await set({ key, value: 'v' }), 400);
      for (const method of ['Get', 'Observe', 'StopObserve'])
        assert.equal((await ada.request(`realtimeStore${method}`, { key })).errorCode, 400);
    }
    for (let i = 0; i < 1000; i += 1) {
      await ada.ok('realtimeStoreSet', { key: `${i}`, value: 'v' });
      await ada.ok('realtimeStoreObserve', { key: `${i}` });
    }
    assert.equal(await set({ key: 'more', value: 'v' }), 507);
    assert.equal((await ada.request('realtimeStoreObserve', { key: 'more' })).errorCode, 507);
    await ada.ok('realtimeStoreSet', { key: '0', value: null });
    await ada.ok('realtimeStoreSet', { key: 'more', value: 'v' });
  });
});

describe('files of a meeting', () => {
  const LARGEST = 300_000;
  let service;
  let ada;
  before(async () => {
    service = await openService({ fileSize: LARGEST, filesTotal: 700_000 });
    ada = service.client('ada');
    await ada.join();
  });
  after(() => service.close());

  const upload = (base64Data, { fileName = 'a.bin', roomId = 'room', token, ...more } = {}) =>
    post(service.ca, `https://${service.ready.service}/base64-upload?roomId=${roomId}`, {
      body: { fileName, base64Data },
      headers: { authorization: token ?? service.token() },
      ...more,
    });

  async function fetch(url, authorization = service.token()) {
    const request = https.get(url, { ca: service.ca, headers: { authorization }, agent: false });
    const [response] = await once(request, 'response');
    return {
      status: response.statusCode,
      headers: response.headers,
      bytes: await buffer(response),
    };
  }

  it('come back as they were, to those who may, while there is the meeting', async () => {
    const bytes = Buffer.from(Array.from({ length: LARGEST }, (_, i) => (i * 7) % 256));
    const fileName = 'naïve "1"\r\n.png';
    const { status, body } = await upload(bytes.toString('base64'), { fileName });
    assert.equal(status, 200, JSON.stringify(body));
    const got = await fetch(body.url);
    assert.equal(got.status, 200);
    assert.ok(got.bytes.equals(bytes));
    assert.ok(got.headers['content-disposition'].includes(encodeURIComponent(fileName)));
    assert.equal((await upload(Buffer.from('ab').toString('base64'))).status, 200);
    for (const [url, token, wanted] of [
      [body.url, '', 401],
      [body.url, service.token({ exp: 1 }), 401],
      [body.url, service.token({ roomId: 'other' }), 403],
      [`${body.url}x`, undefined, 404],
      [body.url.replace('/room/', '/other/'), undefined, 404],
      [body.url.replace('/room/', '/%ff/'), undefined, 400],
      [body.url.replace('/room/', '//'), undefined, 400],
    ]) {
      const refused = await fetch(url, token);
      assert.equal(refused.status, wanted, url);
      assert.ok(JSON.parse(refused.bytes).error);
    }
    const again = await upload(bytes.toString('base64'));
    assert.equal(again.status, 200);
    assert.equal((await upload(bytes.toString('base64'))).status, 413, 'the total is bounded');
    await service.control('closeRoom', { roomId: 'room' });
    assert.equal((await fetch(body.url)).status, 404);
    ada = service.client('ada');
    await ada.join();
    assert.equal((await upload(bytes.toString('base64'))).status, 200, 'no room again');
  });

  it('are refused with a word why', async () => {
    const good = Buffer.from('good').toString('base64');
    const cases = [
      [413, Buffer.alloc(LARGEST + 1).toString('base64')],
      [413, Buffer.alloc(1_500_000).toString('base64')],
      [401, good, { token: 'x' }],
      [401, Buffer.alloc(LARGEST).toString('base64'), { token: '' }],
      [403, good, { token: service.token({ roomId: 'other' }) }],
      [404, good, { roomId: 'nowhere' }],
      [400, good, { roomId: '' }],
      [400, ''],
      [400, 7],
      [400, 'data:text/plain;base64,AAAA'],
      [400, 'AAAAA'],
      [400, 'AA='],
      [400, good, { fileName: '' }],
      [400, good, { fileName: '\ud800' }],
      [400, good, { body: '[' }],
      [400, good, { body: '[]' }],
      [405, good, { method: 'PUT' }],
    ];
    for (const [status, data, more] of cases) {
      const answer = await upload(data, more);
      const what = `${status} ${JSON.stringify(more)} ${answer.text.slice(0, 100)}`;
      assert.ok(answer.status === status && answer.body.error && !('url' in answer.body), what);
    }
  });
});
