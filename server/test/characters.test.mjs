import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('characters', () => {
  let service;
  before(async () => {
    service = await openService({ workers: 2, characterThink: 5 });
  });
  after(() => service.close());

  async function gather(roomId, ...peerIds) {
    const clients = peerIds.map((id) => service.client(id, { roomId }));
    for (const client of clients) await client.join();
    return clients;
  }

  const charactersOf = async (roomId) =>
    (await service.control('rooms', { roomId })).rooms[0].characters;
  const robin = { characterId: 'robin', displayName: 'Robin' };
  const methods = (client, ...wanted) =>
    client.events.map(({ method }) => method).filter((method) => wanted.includes(method));
  const becomes = (client, status, id = 'robin') =>
    client.next('characterStateChanged', (d) => d.id === id && d.status === status);

  it('are announced to all, with their voices', async () => {
    const [ada, bob] = await gather('announced', 'ada', 'bob');
    const asked = {
      ...robin,
      characterMode: 'coPilot',
      characterRole: 'guide',
      knowledgeBases: ['handbook'],
      metaData: ['calm', 'brief'],
      interactionId: null,
    };
    const { status, ...answer } = await ada.ok('joinCharacter', asked);
    assert.equal(status, 'ok');
    assert.match(answer.interactionId, /./);
    assert.deepEqual(answer, { ...asked, interactionId: answer.interactionId });
    const described = {
      id: 'robin',
      displayName: 'Robin',
      interactionId: answer.interactionId,
      mode: 'SEND_AND_RECV',
      characterMode: 'coPilot',
      characterRole: 'guide',
      knowledgeBases: ['handbook'],
    };
    await ada.ok('joinCharacter', { characterId: 'wren', characterMode: 'text' });
    for (const client of [ada, bob]) {
      assert.deepEqual(await client.next('addCharacter'), described);
      await becomes(client, 'characterListening');
      const { appData, peerId, kind } = await client.next('newConsumer');
      assert.deepEqual([appData.peerId, peerId, kind], ['robin', 'robin', 'audio']);
      assert.equal((await client.next('addCharacter')).displayName, 'Character wren');
    }
    const [carl] = await gather('announced', 'carl');
    await carl.next('newConsumer');
    const order = methods(carl, 'addCharacter');
    assert.equal(order.length, 2, 'both are known before a voice is offered');
    const pitches = (await charactersOf('announced')).map(({ hz }) => hz);
    assert.ok(pitches[0] !== pitches[1] && pitches.every((hz) => hz >= 300 && hz <= 900));

    await service.control('switchRoom', { roomId: 'announced', peerId: 'carl', toRoomId: 'next' });
    await carl.next('entryResponded', (d) => d.switchingRoomId === 'next');
    const [eve] = await gather('next', 'eve');
    await eve.ok('joinCharacter', { characterId: 'owl' });
    carl.moveTo('next');
    await carl.ok('join', carl.joinData({ switchingRoom: true }));
    assert.equal((await carl.next('addCharacter', (d) => d.id === 'owl')).characterMode, 'autoPilot');
    await carl.next('newConsumer', (d) => d.peerId === 'owl');

    for (const client of [ada, bob]) client.events.length = 0;
    await bob.ok('leaveCharacter', { characterId: 'robin' });
    for (const client of [ada, bob]) {
      assert.deepEqual(await client.next('removeCharacter'), { id: 'robin' });
      assert.deepEqual(methods(client, 'consumerClosed'), ['consumerClosed'], 'closed before');
    }
    await ada.ok('joinCharacter', robin);
    await bob.next('newConsumer');
    assert.deepEqual(bob.seen('consumeFailed'), []);
  });

  it('think about what they are told, and say it', async () => {
    const [ada, bob] = await gather('told', 'ada', 'bob');
    await ada.ok('joinCharacter', { ...robin, knowledgeBases: ['handbook'], metaData: ['haste'] });
    await bob.next('newConsumer');
    const sent = async () => (await charactersOf('told'))[0].packetsSent;
    assert.equal(await sent(), 0);
    await service.control('setCharacter', { roomId: 'told', ...robin, speakMs: 100, hz: 440 });
    await ada.ok('sendCharacterMessage', { characterId: 'robin', text: 'Is it cold?' });
    await becomes(bob, 'characterListening');
    const asked = await bob.next('characterMessage');
    assert.ok(!Number.isNaN(Date.parse(asked.timestamp)));
    assert.deepEqual(
      { ...asked, timestamp: '' },
      {
        characterId: 'robin',
        text: 'Is it cold?',
        participantId: 'ada',
        participantName: 'ada',
        timestamp: '',
      },
    );
    await becomes(bob, 'characterThinking');
    await becomes(bob, 'characterSpeaking');
    const reply = await bob.next('characterMessage');
    assert.deepEqual([reply.participantId, reply.participantName], ['robin', 'Robin']);
    for (const word of ['Is it cold?', 'handbook', 'haste']) assert.ok(reply.text.includes(word));
    await becomes(bob, 'characterListening');
    assert.equal(await sent(), 1 + 5 + 3);
    const { rooms } = await service.control('rooms', { roomId: 'told' });
    const { consumers } = rooms[0].peers.find(({ id }) => id === 'bob');
    assert.equal(consumers[0].peerId, 'robin');

    // Loud and long enough for the one who listens for the loudest voice.
    await service.control('speak', { roomId: 'told', characterId: 'robin', ms: 8000 });
    assert.deepEqual(await bob.next('activeSpeaker', (d) => d.peerId), { peerId: 'robin' });
    await becomes(bob, 'characterSpeaking');
    await ada.ok('interruptCharacter', { characterId: 'robin' });
    const before = await sent();
    await becomes(bob, 'characterListening');
    assert.deepEqual(await bob.next('activeSpeaker'), { peerId: null });
    assert.equal(await sent(), before);
    await ada.ok('interruptCharacter', { characterId: 'robin' });
    assert.deepEqual(methods(bob, 'characterStateChanged'), [], 'nothing to interrupt');
  });

  it('give up what they think or say for what comes next', async () => {
    const [ada] = await gather('busy', 'ada');
    await ada.ok('joinCharacter', { ...robin, characterMode: 'text' });
    await becomes(ada, 'characterListening');
    await service.control('setCharacter', { roomId: 'busy', ...robin, thinkMs: 60000 });
    const tell = (text) => ada.ok('sendCharacterMessage', { characterId: 'robin', text });
    await tell('first');
    await service.control('setCharacter', { roomId: 'busy', ...robin, thinkMs: 1 });
    await tell('second');
    await becomes(ada, 'characterListening');
    const said = ada.seen('characterMessage');
    assert.deepEqual(said.map(({ participantId }) => participantId), ['ada', 'ada', 'robin']);
    assert.match(said[2].text, /second/);
    const states = ada.seen('characterStateChanged').map(({ status }) => status);
    assert.deepEqual(states, ['characterThinking', 'characterThinking']);
    assert.deepEqual(ada.seen('newConsumer'), [], 'one of text has no stream');
    const speak = service.control('speak', { roomId: 'busy', ...robin, ms: 100 });
    await assert.rejects(speak, /409/);
    await service.control('setCharacter', { roomId: 'busy', ...robin, thinkMs: 60000 });
    await tell('third');
    await ada.ok('interruptCharacter', { characterId: 'robin' });
    await becomes(ada, 'characterListening');
  });

  it('refuse what is odd', async () => {
    const [ada, bob] = await gather('odd', 'ada', 'bob');
    await ada.ok('joinCharacter', robin);
    for (const [method, data, errorCode] of [
      ['joinCharacter', {}, 400],
      ['joinCharacter', { characterId: 'a b' }, 400],
      ['joinCharacter', { characterId: 'wren', characterMode: 'singing' }, 400],
      ['joinCharacter', { characterId: 'wren', knowledgeBases: 'handbook' }, 400],
      ['joinCharacter', { characterId: 'wren', metaData: [1] }, 400],
      ['joinCharacter', { characterId: 'wren', metaData: Array(101).fill('x') }, 400],
      ['joinCharacter', robin, 409],
      ['joinCharacter', { characterId: 'bob' }, 409],
      ['leaveCharacter', { characterId: 'bob' }, 404],
      ['sendCharacterMessage', { characterId: 'robin' }, 400],
      ['sendCharacterMessage', { characterId: 'wren', text: 'x' }, 404],
      ['interruptCharacter', { characterId: 'wren' }, 404],
    ]) {
      const { status, errorCode: code } = await ada.request(method, data);
      assert.deepEqual([status, code], ['error', errorCode], `${method} ${JSON.stringify(data)}`);
    }
    // Two requests at once, of which one must lose.
    const owl = { characterId: 'owl' };
    const both = await Promise.all([ada, bob].map((one) => one.request('joinCharacter', owl)));
    assert.deepEqual(both.map(({ status }) => status).sort(), ['error', 'ok']);
    for (let i = 2; i < 20; i += 1) await bob.ok('joinCharacter', { characterId: `c${i}` });
    assert.equal((await bob.request('joinCharacter', { characterId: 'c20' })).errorCode, 507);
    assert.equal(new Set((await charactersOf('odd')).map(({ hz }) => hz)).size, 20);
    const wren = service.client('robin', { roomId: 'odd' });
    await wren.enter();
    assert.equal((await wren.request('join', wren.joinData())).errorCode, 409);
    for (const [action, body] of [
      ['addCharacter', { ...robin }],
      ['addCharacter', { characterId: 'tit', hz: 440.5 }],
      ['setCharacter', { ...robin, thinkMs: -1 }],
      ['setCharacter', { characterId: 'nobody' }],
      ['speak', { ...robin }],
    ])
      await assert.rejects(service.control(action, { roomId: 'odd', ...body }), /40[049]/);
  });

  it('do what the control endpoint orders', async () => {
    const roomId = 'ordered';
    const [ada] = await gather(roomId, 'ada');
    const { hz } = await service.control('addCharacter', { roomId, ...robin, hz: 523 });
    assert.equal(hz, 523);
    await ada.next('addCharacter');
    await ada.next('newConsumer');
    await service.control('speak', { roomId, ...robin, ms: 40 });
    await becomes(ada, 'characterSpeaking');
    await becomes(ada, 'characterListening');
    await service.control('characterState', { roomId, characterId: 'x', status: 'singing' });
    assert.deepEqual(await ada.next('characterStateChanged', (d) => d.id === 'x'), {
      id: 'x',
      status: 'singing',
    });
    await service.control('characterMessage', { roomId, characterId: 'x', text: 'la' });
    assert.equal((await ada.next('characterMessage')).participantId, 'x');
    await service.control('removeCharacter', { roomId, ...robin });
    await ada.next('removeCharacter');

    await service.control('announceCharacterFirst', { roomId });
    const order = [];
    ada.socket.on('notification', ({ method }) => order.push(method));
    await ada.ok('joinCharacter', robin).then(() => order.push('answer'));
    await ada.ok('joinCharacter', { characterId: 'wren' }).then(() => order.push('answer'));
    await ada.next('newConsumer', (d) => d.peerId === 'wren');
    const interesting = order.filter((one) => ['addCharacter', 'answer'].includes(one));
    assert.deepEqual(interesting, ['addCharacter', 'answer', 'answer', 'addCharacter']);
  });

  it('keep no meeting alive, and go with it', async () => {
    const roomId = 'left';
    const [ada] = await gather(roomId, 'ada');
    await ada.ok('joinCharacter', robin);
    await service.control('speak', { roomId, ...robin, ms: 8000 });
    await ada.ok('definePeerLeftReason', { leaveReason: 'MANUAL_LEAVE_CALLED' });
    ada.socket.disconnect();
    await until(async () => (await service.control('rooms', { roomId })).rooms.length === 0);
    const [bob] = await gather(roomId, 'bob');
    assert.deepEqual(await charactersOf(roomId), []);
    await bob.ok('joinCharacter', robin);
  });
});
