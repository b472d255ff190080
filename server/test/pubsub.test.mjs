import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { numbers, PubSubClient, refusal, texts } from './pubsub-client.mjs';
import { openService } from './support.mjs';

describe('topics on their WebSocket', () => {
  let service;
  before(async () => {
    service = await openService({ pubsubStored: 250 });
  });
  after(() => service.close());

  const enter = (peerId, roomId) => PubSubClient.of(service.client(peerId, { roomId }));

  it('brings every message once to each connection, in one order, the publisher too', async () => {
    const roomId = 'live';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    for (const one of [ada, bob]) await one.subscribe('news');
    await bob.subscribe('news', { requestId: 'again' });
    await bob.subscribe('news', { requestId: 'again' });
    const given = {
      payload: Buffer.from('{"a":1}'),
      timestamp: '2024-02-03T04:05:06Z',
      senderName: 'Ada L',
      messageId: 'mine',
    };
    assert.equal((await ada.publish('news', 'first', given)).messageId, 'mine');
    const [first] = await bob.live('news', 1);
    const fields = { message: 'first', ...given, senderId: 'ada', sendOnly: [] };
    assert.deepEqual({ ...first }, { ...fields, persistMsgId: '', seqNum: 1 });
    assert.ok((await ada.publish('news', 'second')).messageId);
    for (let i = 0; i < 1200; i += 1)
      ada.send({ publish: { topic: 'news', message: `${i}`, senderId: 'ada' } });
    await ada.publish('other', 'elsewhere');
    const wanted = ['second', ...Array.from({ length: 1200 }, (_, i) => `${i}`)];
    const got = await bob.live('news', 1201);
    assert.deepEqual(texts(got), wanted);
    assert.deepEqual(numbers(got), Array.from({ length: 1201 }, (_, i) => i + 2));
    assert.deepEqual(texts(await ada.live('news', 1202)), ['first', ...wanted]);
    await bob.ok('unsubscribe', { topic: 'news' });
    await bob.subscribe('end');
    await ada.publish('news', 'unheard');
    await ada.publish('end', 'heard');
    assert.deepEqual(numbers(await bob.live('end', 1)), [1]);
    assert.deepEqual(bob.frames.filter(({ batch }) => batch), []);
  });

  it('opens only to a ticket of somebody who is in the meeting', async () => {
    const roomId = 'tickets';
    const client = service.client('ada', { roomId, reconnectionDelay: 1 });
    const ada = await PubSubClient.of(client);
    const elsewhere = ada.url.replace(/ticket=.*/, 'ticket=');
    for (const url of [elsewhere, `${elsewhere}x`, ada.url.replace(/\?.*/, '')])
      assert.equal(await refusal(service.ca, url), 401);
    assert.equal(await refusal(service.ca, ada.url.replace('fastws', 'other')), 404);
    await ada.subscribe('t');
    await service.control('dropSocket', { roomId });
    await client.next('disconnect');
    await ada.publish('t', 'while the signalling is down');
    await ada.live('t', 1);
    await client.next('connectionSuccess');
    await client.ok('requestEntry', { name: 'ada' });
    const { pubSubUrl } = await client.ok('join', client.joinData());
    const again = await PubSubClient.at(service, pubSubUrl, 'ada');
    assert.equal(await ada.closed, 1006);
    await service.control('removePeer', { roomId, peerId: 'ada' });
    assert.equal(await again.closed, 1001);
    assert.equal(await refusal(service.ca, pubSubUrl), 401);
    assert.ok(!service.lines.join('').includes(pubSubUrl.split('=')[1]), 'a ticket is in the log');
  });
});
