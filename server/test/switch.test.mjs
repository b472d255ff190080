import * as assert from 'node:assert/strict';
import { after, before, describe, it } from 'node:test';
import { openService, until } from './support.mjs';

describe('moving to another meeting', () => {
  let service;
  before(async () => {
    // With two workers, neighbouring meetings are on different ones.
    service = await openService({ workers: 2 });
  });
  after(() => service.close());

  const peersOf = async (roomId) => (await service.control('rooms', { roomId })).rooms[0]?.peers;
  const ids = (list) => list.map((item) => item.id).sort();
  const askFor = (meetingId, more) => ({
    meetingId,
    secret: '',
    participantId: 'ada',
    mode: 'SEND_AND_RECV',
    ...more,
  });

  async function gather(peerId, roomId, given) {
    const client = service.client(peerId, { roomId, ...given });
    await client.join();
    return client;
  }

  it('takes transports and producers along, to another worker too', async () => {
    const eve = await gather('eve', 'there');
    const ada = await gather('ada', 'here');
    const spoken = await eve.produce('audio');
    const { id } = await ada.produce('audio');
    const transportsOf = async (roomId) =>
      ids((await peersOf(roomId)).find((peer) => peer.id === 'ada').transports);
    const before = await transportsOf('here');
    await ada.ok('switchToMeeting', askFor('there'));
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'there');
    ada.moveTo('there');
    await ada.ok('join', ada.joinData({ switchingRoom: true }));
    assert.equal((await ada.next('newConsumer')).producerId, spoken.id);
    assert.equal((await eve.next('newConsumer')).producerId, id);
    assert.deepEqual(await transportsOf('there'), before);
    assert.deepEqual([...eve.seen('consumeFailed'), ...ada.seen('consumeFailed')], []);
  });

  it('goes only where the token, and whoever decides there, let it', async () => {
    const ada = await gather('ada', 'home', {
      token: service.token({ permissions: ['allow_join'], roomId: 'home' }),
    });
    for (const [asked, errorCode] of [
      [askFor('away'), 4022],
      [askFor('away', { secret: 'a.b.c' }), 4002],
      [askFor('away', { secret: service.token(), participantId: 'eve' }), 400],
      [askFor('away', { secret: service.token(), mode: 'SINGING' }), 400],
      [askFor('a b', { secret: service.token() }), 400],
    ]) {
      assert.equal((await ada.request('switchToMeeting', asked)).errorCode, errorCode);
    }
    assert.equal((await ada.request('join', ada.joinData({ switchingRoom: true }))).errorCode, 409);
    assert.equal(await peersOf('away'), undefined);

    await ada.ok('switchToMeeting', askFor('home'));
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'home');
    assert.deepEqual(ids(await peersOf('home')), ['ada']);

    const asking = askFor('away', { secret: service.token({ permissions: ['ask_join'] }) });
    await service.control('refuseEntry', { roomId: 'away', how: 'answer', errorCode: 4024 });
    assert.equal((await ada.request('switchToMeeting', asking)).errorCode, 4024);
    await service.control('refuseEntry', { roomId: 'away' });
    await ada.ok('switchToMeeting', asking);
    assert.equal((await ada.next('entryResponded')).decision, 'denied');

    // A meeting that is only asked for lives as long as the one who asks.
    await ada.ok('switchToMeeting', asking);
    await until(() => peersOf('away'));
    const host = await gather('host', 'away');
    assert.deepEqual(await host.next('entryRequested'), { id: 'ada', name: 'ada' });
    await host.ok('respondEntry', { id: 'ada', decision: 'denied' });
    const { decision, switchingRoomId } = await ada.next('entryResponded');
    assert.deepEqual([decision, switchingRoomId], ['denied', undefined]);
    await ada.ok('pauseAllConsumers', { kind: 'all' });
    await ada.ok('switchToMeeting', asking);
    await host.next('entryRequested');
    await host.ok('respondEntry', { id: 'ada', decision: 'allowed' });
    assert.equal((await ada.next('entryResponded')).switchingRoomId, 'away');
    assert.equal(await peersOf('home'), undefined);
    ada.moveTo('away');
    const joining = ada.joinData({ switchingRoom: true });
    assert.equal((await ada.request('join', joining)).errorCode, 4022, 'the old token');
    await ada.ok('join', { ...joining, secret: asking.secret });
    await host.next('newPeer');
    await ada.ok('switchToMeeting', { ...asking, meetingId: 'nowhere' });
    await until(() => peersOf('nowhere'));
    ada.socket.disconnect();
    await until(async () => !(await peersOf('nowhere')));
  });
});
