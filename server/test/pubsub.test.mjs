import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import { after, before, describe, it } from 'node:test';
import { numbers, PubSubClient, refusal, texts } from './pubsub-client.mjs';
import { openService, until } from './support.mjs';

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
    assert.deepEqual(
      numbers(got),
      Array.from({ length: 1201 }, (_, i) => i + 2),
    );
    assert.deepEqual(texts(await ada.live('news', 1202)), ['first', ...wanted]);
    await bob.ok('unsubscribe', { topic: 'news' });
    await bob.subscribe('end');
    await ada.publish('news', 'unheard');
    await ada.publish('end', 'heard');
    assert.deepEqual(numbers(await bob.live('end', 1)), [1]);
    assert.deepEqual(
      bob.frames.filter(({ batch }) => batch),
      [],
    );
  });

  it('has these bytes on the wire', async () => {
    const p = await enter('p', 'bytes');
    const text = (letters) => Buffer.from(letters).toString('hex');
    const exchange = async (frame, answers) => {
      const got = [];
      p.socket.on('message', (data) => got.push(data.toString('hex')));
      p.socket.send(Buffer.from(frame, 'hex'));
      await until(() => got.length >= answers.length);
      assert.deepEqual(got, answers);
      p.socket.removeAllListeners('message');
    };
    const all = '18ffffffffffffffffff01';
    const replay = `0a01741a0c${text('old-messages')}30013801420172`;
    const subscribe = `0a1b0a0174120170${all}2205${text('queue')}320172`;
    await exchange(subscribe, ['12050a01721001', `0a18${replay}`]);
    await exchange('2a00', []);
    const published = ['0a0174120178', '1a016d', '2a0154320170', '3a014e', '4a0169520171'];
    const message = ['0a016d120178', '1a0154220170', '2a014e', '3a0169'];
    const ack = '12080a01711001220169';
    await exchange(`1a18${published.join('')}`, [
      ack,
      `0a1f0a01741214${message.join('')}4801200128013801`,
    ]);
    // Stored, and for "p" alone.
    published.splice(2, 0, '220170');
    published.splice(5, 0, '4001');
    message.splice(3, 0, '320131');
    await exchange(`1a1d${published.join('')}`, [
      ack,
      `0a1f0a01741218${message.join('')}4201703802`,
    ]);
    await exchange('220b0a01741201301801220168', [
      '12050a01681001',
      `0a320a01741218${message.join('')}4201701a0c${text('old-messages')}30013801420168`,
    ]);
    await exchange('12060a0174120175', ['12050a01751001']);
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

  it('ends with the stay in a meeting, and is told again in the next one', async () => {
    const client = service.client('ada', { roomId: 'from' });
    const ada = await PubSubClient.of(client);
    const bob = await enter('bob', 'from');
    await service.control('publish', {
      roomId: 'from',
      topic: 't',
      message: 'kept',
      persist: true,
    });
    await service.control('switchRoom', { roomId: 'from', peerId: 'ada', toRoomId: 'to' });
    assert.equal(await ada.closed, 1001);
    client.moveTo('to');
    await service.control('setPubSubUrl', { roomId: 'to', url: 7 });
    const first = await client.ok('join', client.joinData({ switchingRoom: true }));
    assert.equal(first.pubSubUrl, 7);
    await service.control('closeRoom', { roomId: 'from' });
    assert.equal(await bob.closed, 1001);
    const again = await enter('cyd', 'from');
    await again.subscribe('t', { oldMessageLimit: -1, requestId: 'all' });
    assert.deepEqual((await again.replay('all'))[0].messages, [], 'stored for another meeting');
    await service.control('setPubSubUrl', { roomId: 'to', peerId: 'dan', url: false });
    assert.ok(!('pubSubUrl' in (await service.client('dan', { roomId: 'to' }).join())));
  });

  it('replays what is stored: the newest, oldest first, to those who may read it', async () => {
    const roomId = 'history';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    for (let i = 1; i <= 300; i += 1)
      ada.send({ publish: { topic: 't', message: `${i}`, senderId: 'ada', persist: true } });
    await ada.publish('t', 'not stored');
    await ada.publish('t', 'for ada', { persist: true, sendOnly: ['ada', 'eve'] });
    const replay = async (one, requestId, oldMessageLimit, topic = 't') => {
      await one.subscribe(topic, { oldMessageLimit, requestId });
      return one.replay(requestId);
    };
    const all = await replay(bob, 'all', -1);
    assert.deepEqual(
      all.map(({ messages, isLast }) => [messages.length, isLast]),
      [
        [100, false],
        [100, false],
        [49, true],
      ],
    );
    const wanted = Array.from({ length: 249 }, (_, i) => `${i + 52}`);
    assert.deepEqual(texts(all.flatMap(({ messages }) => messages)), wanted);
    assert.deepEqual([all[0].startSeq, all[2].endSeq, all[2].batchSeq], [52, 300, 3]);
    assert.deepEqual(texts((await replay(bob, 'two', 2))[0].messages), ['299', '300']);
    const [own] = await replay(ada, 'own', 2);
    assert.deepEqual(texts(own.messages), ['300', 'for ada']);
    assert.deepEqual(own.messages[1].sendOnly, ['ada', 'eve']);
    for (const [requestId, topic] of [
      ['unknown', 'new'],
      ['exact', 't'],
    ]) {
      const limit = topic === 't' ? 2147483647 : -1;
      const batches = await replay(bob, requestId, limit, topic);
      assert.equal(batches.flatMap(({ messages }) => messages).length, topic === 't' ? 249 : 0);
    }
    await bob.subscribe('t', { oldMessageLimit: 0, requestId: 'none' });
    const cursor = all[1].messages[98].persistMsgId;
    const pages = [];
    for (const [persistMsgId, batchSize] of [
      [cursor, 30],
      [cursor, 0],
      ['', 1],
    ]) {
      const requestId = `page-${batchSize}`;
      await bob.ok('getHistory', { topic: 't', persistMsgId, batchSize, requestId });
      const { batch } = await bob.next(({ batch }) => batch?.requestId === requestId);
      pages.push([batch.messages.length, batch.messages[0].message, batch.isLast]);
    }
    assert.deepEqual(pages, [
      [30, '251', false],
      [50, '251', true],
      [1, '52', false],
    ]);
    assert.deepEqual(
      bob.frames.filter(({ batch }) => batch?.requestId === 'none'),
      [],
    );
    // What is on its way live is not overtaken by a replay that has it too.
    bob.frames.length = 0;
    bob.send({ publish: { topic: 't', message: 'last', senderId: 'bob', persist: true } });
    await bob.subscribe('t', { oldMessageLimit: 1, requestId: 'after' });
    await until(() => bob.frames.some(({ batch }) => batch?.isLast));
    const batches = bob.frames.filter(({ batch }) => batch).map(({ batch }) => batch);
    assert.deepEqual(
      batches.map(({ batchType, messages }) => [batchType, ...texts(messages)]),
      [
        ['', 'last'],
        ['old-messages', 'last'],
      ],
    );
  });

  it('lets a message for some leave no hole for the others', async () => {
    const roomId = 'some';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    for (const one of [ada, bob]) await one.subscribe('t');
    for (const sendOnly of [[], ['bob'], [], ['eve'], ['ada', 'bob'], []])
      await ada.publish('t', sendOnly.join() || 'all', { sendOnly });
    const got = [await ada.live('t', 4), await bob.live('t', 5)];
    assert.deepEqual(got.map(numbers), [
      [1, 2, 0, 3],
      [1, 0, 2, 0, 3],
    ]);
    assert.deepEqual(texts(got[1]), ['all', 'bob', 'all', 'ada,bob', 'all']);
  });

  it('lets a slow reader queue within its bound or miss what is new, with holes', async () => {
    const roomId = 'slow';
    const ada = await enter('ada', roomId);
    await ada.subscribe('queue', { queueSize: 150 });
    await ada.subscribe('drop', { realtimeOverflow: 'drop' });
    await ada.subscribe('both', { realtimeOverflow: 'drop' });
    await ada.subscribe('both', { queueSize: 3 });
    const publish = (topic, times) => service.control('publish', { roomId, topic, times });
    await service.control('slowPubSub', { roomId, peerId: 'ada' });
    const topics = ['queue', 'drop', 'both'];
    for (const topic of topics) await publish(topic, 200);
    const { pubsub } = (
      await until(async () => {
        const { rooms } = await service.control('rooms', { roomId });
        const dropped = rooms[0].pubsub.connections[0].topics.map((topic) => topic.dropped);
        return dropped.join() === '50,200,197' && rooms;
      })
    )[0];
    assert.deepEqual(
      pubsub.connections[0].topics.map((topic) => topic.waiting),
      [150, 0, 3],
    );
    await service.control('resumePubSub', { roomId });
    for (const topic of topics) await publish(topic, 1);
    const from = (first) => Array.from({ length: 202 - first }, (_, i) => first + i);
    assert.deepEqual(numbers(await ada.live('queue', 151)), from(51));
    assert.deepEqual(numbers(await ada.live('drop', 1)), [201]);
    assert.deepEqual(numbers(await ada.live('both', 4)), from(198));
  });

  it('notices by itself that a reader is slow, and holds what is for it only', async () => {
    const roomId = 'paused';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    await ada.subscribe('t', { queueSize: 20 });
    await bob.subscribe('t');
    ada.socket.pause();
    const payload = { text: 'x'.repeat(200_000) };
    const state = async () => {
      const { rooms } = await service.control('rooms', { roomId });
      return rooms[0].pubsub.connections.find(({ peerId }) => peerId === 'ada').topics[0];
    };
    let sent = 0;
    for (; (await state()).dropped === 0; sent += 10)
      await service.control('publish', { roomId, topic: 't', payload, times: 10 });
    const wanted = Array.from({ length: sent }, (_, i) => i + 1);
    assert.deepEqual(numbers(await bob.live('t', sent)), wanted);
    const { dropped } = await until(async () => {
      const now = await state();
      return now.waiting === 20 && now;
    });
    ada.socket.resume();
    const got = numbers(await ada.live('t', sent - dropped));
    assert.deepEqual(got.slice(-20), wanted.slice(-20));
  });

  it('sends no more than the asked number of new messages a second', async () => {
    const roomId = 'limit';
    const ada = await enter('ada', roomId);
    await ada.subscribe('t', { newMessageLimit: 5 });
    await ada.subscribe('end');
    const began = performance.now();
    await service.control('publish', { roomId, topic: 't', times: 1000 });
    await service.control('publish', { roomId, topic: 'end' });
    await ada.live('end', 1);
    const got = ada.frames.flatMap(({ batch }) => (batch ? numbers(batch.messages) : []));
    assert.deepEqual(got.slice(0, 5), [1, 2, 3, 4, 5]);
    assert.ok(got.length <= 5 * (2 + (performance.now() - began) / 1000), `${got.length}`);
    await ada.subscribe('t');
    await service.control('publish', { roomId, topic: 't', times: 100 });
    assert.equal((await ada.live('t', 100 + got.length)).at(-1).seqNum, 1100);
  });
});

describe('faults of the WebSocket for topics', () => {
  let service;
  before(async () => {
    service = await openService({ pubsubBatch: 50 });
  });
  after(() => service.close());

  const enter = (peerId, roomId) => PubSubClient.of(service.client(peerId, { roomId }));

  it('brings nothing from before the subscription, though it is still being collected', async () => {
    const roomId = 'late';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    await ada.subscribe('t');
    await ada.publish('t', 'before');
    await bob.subscribe('t');
    await ada.publish('t', 'after');
    assert.deepEqual(texts(await bob.live('t', 1)), ['after']);
    assert.deepEqual(texts(await ada.live('t', 2)), ['before', 'after']);
  });

  it('refuses what is odd and hangs up on what is no frame', async () => {
    const roomId = 'odd';
    const ada = await enter('ada', roomId);
    const good = { topic: 't', peerId: 'ada', realtimeOverflow: 'queue', oldMessageLimit: 0 };
    const refused = [
      ['subscribe', { ...good, peerId: 'bob' }],
      ['subscribe', { ...good, topic: '' }],
      ['subscribe', { ...good, realtimeOverflow: 'wait' }],
      ['subscribe', { ...good, oldMessageLimit: -2 }],
      ['subscribe', { ...good, queueSize: -1 }],
      ['subscribe', { ...good, newMessageLimit: -1 }],
      ['publish', { topic: 't', senderId: 'bob' }],
      ['publish', { topic: 't' }],
      ['publish', { topic: '', senderId: 'ada' }],
      ['publish', { topic: 'x'.repeat(2000), senderId: 'ada' }],
      ['getHistory', { topic: 'nowhere' }],
    ];
    for (const [op, body] of refused) {
      const { ok, error } = await ada.ask(op, body);
      assert.ok(!ok && error, `${op} ${JSON.stringify(body).slice(0, 100)}`);
    }
    await ada.subscribe('t');
    assert.ok(!(await ada.ask('getHistory', { topic: 't', persistMsgId: 'x' })).ok);
    await ada.ok('unsubscribe', { topic: 'nowhere' });
    const { sequence } = await service.control('skipSequence', { roomId, topic: 't', by: 2 });
    assert.equal(sequence, 2, 'a refused message took a number');
    const garbage = [
      [Buffer.from([0xff, 0xff, 0xff]), 1007],
      [Buffer.alloc(100, 0x1a), 1007],
      [Buffer.alloc(0), 1007],
      [Buffer.from('d80601', 'hex'), 1007],
      ['text', 1003],
      [Buffer.alloc(16 * 1024 * 1024 + 1), 1009],
    ];
    for (const [data, code] of garbage) {
      const one = await PubSubClient.at(service, ada.url, 'ada');
      one.socket.send(data);
      assert.equal(await one.closed, code);
    }
  });

  it('pings, and gives up one who answers none', async (t) => {
    const own = await openService({ pubsubPingInterval: 300 });
    t.after(() => own.close());
    const ada = await PubSubClient.of(own.client('ada'));
    for (const seq of [1, 2, 3, 4])
      assert.deepEqual((await ada.next(({ ping }) => ping)).ping, { seq });
    ada.answerPings = false;
    ada.send({ pong: { seq: 1000 } });
    assert.equal(await ada.closed, 1006);
  });

  it('swallows, refuses and delays acknowledgements, and holds a replay', async () => {
    const roomId = 'acks';
    const ada = await enter('ada', roomId);
    await service.control('refusePubSub', { roomId, op: 'publish', error: 'not now' });
    const publish = { topic: 't', senderId: 'ada', message: 'm', persist: true };
    const { ok, error } = await ada.ask('publish', publish);
    assert.deepEqual([ok, error], [false, 'not now']);
    await service.control('swallowPubSubAck', { roomId, op: 'publish', topic: 't' });
    ada.send({ publish: { ...publish, requestId: 'lost' } });
    await ada.ok('publish', publish);
    assert.deepEqual(
      ada.frames.filter(({ ack }) => ack),
      [],
    );
    await service.control('delayPubSubAck', { roomId, op: 'subscribe', ms: 100 });
    const order = [];
    await Promise.all([
      ada.subscribe('t', { oldMessageLimit: -1, requestId: 'late' }).then(() => order.push('ack')),
      ada.replay('late').then(([{ messages }]) => order.push(texts(messages).join())),
    ]);
    assert.deepEqual(order, ['m,m', 'ack']);
    await service.control('holdReplay', { roomId, topic: 't' });
    await ada.subscribe('t', { oldMessageLimit: 1, requestId: 'held' });
    await ada.publish('t', 'live');
    assert.deepEqual(texts(await ada.live('t', 1)), ['live']);
    assert.deepEqual(
      ada.frames.filter(({ batch }) => batch),
      [],
    );
    await service.control('resumePubSub', { roomId, peerId: 'ada' });
    assert.equal((await ada.replay('held')).length, 1);
  });

  it('goes silent, skips numbers and sends any frame', async () => {
    const roomId = 'silent';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    for (const one of [ada, bob]) await one.subscribe('t');
    const publish = async () => {
      ada.send({ publish: { topic: 't', senderId: 'ada', requestId: 'silent' } });
      await bob.live('t', 1);
    };
    await publish();
    for (const frames of ['lost', 'held']) {
      await service.control('silencePubSub', { roomId, peerId: 'ada', frames });
      await publish();
      await service.control('resumePubSub', { roomId });
    }
    await service.control('skipSequence', { roomId, topic: 't', by: 5 });
    await publish();
    assert.deepEqual(numbers(await ada.live('t', 3)), [1, 3, 9]);
    assert.equal(ada.frames.filter(({ ack }) => ack?.requestId === 'silent').length, 3);
    const to = { roomId, peerId: 'ada' };
    const envelope = { batch: { topic: 'x', payloads: [{ message: 'made', seqNum: 77 }, 'SE0='] } };
    await service.control('sendPubSubFrame', { ...to, envelope });
    assert.deepEqual(numbers(await ada.live('x', 2)), [77, 77]);
    await service.control('sendPubSubFrame', { ...to, raw: 'EgMKAXE=' });
    assert.equal((await ada.next(({ ack }) => ack?.requestId === 'q')).ack.ok, false);
    for (const odd of [{ bach: {} }, { ack: { id: 'x' } }, { ping: { seq: [] } }, 7, undefined])
      await assert.rejects(service.control('sendPubSubFrame', { ...to, envelope: odd }), /400/);
  });

  it('drops connections and lets nobody back for a while', async () => {
    const roomId = 'drops';
    const [ada, bob] = [await enter('ada', roomId), await enter('bob', roomId)];
    await assert.rejects(
      service.control('dropPubSub', { roomId, how: 'close', code: 1006 }),
      /400/,
    );
    const how = { how: 'close', code: 4321, downMs: 600000, status: 502 };
    await service.control('dropPubSub', { roomId, peerId: 'ada', ...how });
    assert.equal(await ada.closed, 4321);
    assert.equal(await refusal(service.ca, ada.url), 502);
    await service.control('clearFaults');
    await service.control('silencePubSub', { roomId, next: true, frames: 'held' });
    const again = new PubSubClient(service, ada.url, 'ada');
    await once(again.socket, 'open');
    await service.control('dropPubSub', { roomId, peerId: 'bob' });
    assert.equal(await bob.closed, 1006);
    assert.deepEqual(again.frames, []);
    await service.control('resumePubSub', { roomId });
    assert.equal((await again.next(({ welcome }) => welcome)).welcome.pingIntervalMs, 25000);
    await service.control('restart', { keepRooms: true });
    assert.equal(await again.closed, 1006);
  });
});
