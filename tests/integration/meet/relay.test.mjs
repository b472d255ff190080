import * as assert from 'node:assert/strict';
import { test } from 'node:test';
import { join, joinAs, openPlace, Run } from './support.mjs';

const { service } = await openPlace();

const quiet = ['--camera', 'none', '--mic', 'none'];

/** Somebody in a hall, who decides what is shown there. */
async function openHall(name, ...more) {
  const host = join(service, name, 'Host', '--participant', 'host', ...quiet, ...more);
  await host.event('joined');
  return host;
}

test('a meeting that another one accepts is seen and heard there', async () => {
  const hall = await openHall('hall', '--accept-relays');
  const ada = join(service, 'stage', 'Ada', '--tone-hz', '560', '--relay-to', 'hall');
  const request = await hall.event('mediaRelayRequestReceived');
  assert.deepEqual(
    [request.meeting, request.displayName, request.accepted],
    ['stage', 'Ada', true],
  );
  const { decision, decidedBy, meeting } = await ada.event('mediaRelayResponse');
  assert.deepEqual([decision, decidedBy, meeting], ['accepted', 'host', 'hall']);
  assert.equal((await ada.event('mediaRelayStarted')).meeting, 'hall');
  assert.equal((await hall.event('mediaRelayStarted')).meeting, 'stage');

  await hall.event('participantJoined', ({ name }) => name === 'Ada');
  const heard = ({ people }) => people.some((row) => row.name === 'Ada' && row.hertz && row.fps > 5);
  await hall.event('sample', heard);
  assert.equal(await ada.stop('SIGTERM'), 143, ada.stderr);
  assert.equal((await hall.event('mediaRelayStopped')).meeting, 'stage');
  await hall.event('participantLeft', ({ name }) => name === 'Ada');
  await hall.stop('SIGTERM');
  const [remote] = hall.summary.remotes;
  assert.ok(remote.flowed && Math.abs(remote.hertz - 560) < 5, `${remote.hertz} Hz`);
  assert.deepEqual(ada.summary.remotes, []);
});

test('nobody is shown who was not accepted, or whose token is not good there', async () => {
  const hall = await openHall('closed');
  const ada = join(service, 'asking', 'Ada', ...quiet, '--relay-to', 'closed');
  assert.equal((await hall.event('mediaRelayRequestReceived')).accepted, false);

  const { args, env } = joinAs(service, 'narrow', 'Eve', { roomId: 'narrow' });
  const asking = [...args, ...quiet, '--json', '--verbose', '--relay-to', 'closed'];
  const refused = new Run(asking, env);
  assert.equal((await refused.event('error')).code, 4078);
  await refused.stop('SIGTERM');
  const wrong = service.token({ roomId: 'another' });
  const misled = new Run([...asking, '--relay-token', wrong], env);
  assert.equal((await misled.event('error')).code, 4078);
  await misled.stop('SIGTERM');
  assert.ok(!(misled.stdout + misled.stderr).includes(wrong), 'the token was written');

  const right = new Run([...asking, '--relay-token', service.token({ roomId: 'closed' })], env);
  const asked = await hall.event('mediaRelayRequestReceived', (entry) => entry.meeting === 'narrow');
  assert.equal(asked.displayName, 'Eve');
  await service.control('failRelay', { roomId: 'asking', meetingId: 'closed', reason: 'cut' });
  const { meeting, message } = await ada.event('mediaRelayError');
  assert.deepEqual([meeting, message], ['closed', 'cut']);
  for (const run of [right, ada, hall]) await run.stop('SIGTERM');
  for (const event of ['mediaRelayStarted', 'participantJoined'])
    assert.deepEqual(hall.all(event, 'ms'), [], event);
});
