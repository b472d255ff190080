import * as assert from 'node:assert/strict';
import { test } from 'node:test';
import { until } from '../../../server/test/support.mjs';
import { join, openPlace, talk } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service, folder } = await openPlace({ characterThink: 50, grace: 20_000 });

const quiet = ['--camera', 'none', '--mic', 'none'];
const joining = (meeting, name, ...more) => join(service, meeting, name, ...quiet, ...more);
const being = (state) => (entry) => entry.state === state;
const saidBy = (name) => (entry) => entry.participantName === name;
const stream = ({ people }) => people.find((row) => row.character && row.hertz !== null);

test('a character is brought along, spoken to, heard and interrupted', async () => {
  const grace = joining('talk', 'Grace');
  await grace.event('joined');
  const tutor = ['--character', 'tutor', '--character-name', 'Tutor'];
  const ada = talk(service, 'talk', 'Ada', ...tutor);
  await grace.event('characterJoined');
  const hz = 620;
  await service.control('setCharacter', { roomId: 'talk', characterId: 'tutor', hz, speakMs: 8000 });
  ada.say('@tutor what is a monad, and what is it good for?');
  const { text, id, name } = await grace.event('characterMessage', saidBy('Ada'));
  assert.deepEqual([text, id, name], ['what is a monad, and what is it good for?', 'tutor', 'Tutor']);
  const reply = await ada.event('characterMessage', saidBy('Tutor'));
  assert.match(reply.text, /monad/);
  assert.equal(reply.participantId, 'tutor');

  const sample = await grace.event('sample', stream);
  const heard = stream(sample);
  assert.ok(Math.abs(heard.hertz - hz) < 5, `${heard.hertz} Hz, not ${hz}`);
  assert.deepEqual([heard.doing, heard.lastMessage], ['speaking', reply.text]);
  ada.say('/interrupt tutor');
  const silent = being('characterListening');
  await grace.event('characterState', (entry) => silent(entry) && entry.ms > sample.ms);
  assert.deepEqual(
    grace.all('characterState', 'state').slice(-3),
    ['characterThinking', 'characterSpeaking', 'characterListening'],
  );
  ada.say('@everybody hello', '/say nobody hello', '/say tutor');
  await ada.event('message', ({ message }) => message === '@everybody hello');
  await ada.event('chatError', ({ message }) => /no character nobody/.test(message));
  await ada.event('chatError', ({ message }) => /nothing to say/.test(message));

  ada.child.stdin.end();
  assert.equal(await ada.ended, 6);
  assert.equal((await grace.event('characterLeft')).name, 'Tutor');
  await grace.stop('SIGTERM');
  for (const run of [ada, grace]) {
    const [character] = run.summary.characters;
    assert.ok(character.soundHeard && Math.abs(character.hertz - hz) < 5, `${character.hertz} Hz`);
  }
  assert.deepEqual(ada.summary.remotes.map((remote) => remote.name), ['Grace']);
});

test('a script that ends has been heard, and leaves the character of others alone', async () => {
  const grace = joining('script', 'Grace', '--character', 'tutor');
  await grace.event('characterJoined');
  await service.control('setCharacter', { roomId: 'script', characterId: 'tutor', speakMs: 8000 });
  const ada = talk(service, 'script', 'Ada', '--character', 'tutor');
  ada.say('@tutor one', '/say tutor  two');
  ada.child.stdin.end();
  assert.equal(await ada.ended, 0, ada.stderr);
  assert.equal((await ada.event('error')).code, 4033);
  await grace.event('characterMessage', ({ text }) => text === 'two');
  const told = grace.events.filter(saidBy('Ada')).map(({ text }) => text);
  assert.deepEqual(told, ['one', 'two']);
  await grace.event('participantLeft');
  assert.deepEqual(grace.all('characterLeft', 'id'), []);
  await grace.stop('SIGTERM');
});

/** That everybody has seen the character leave, and then who brought it. */
async function leftBefore(witness, name) {
  await witness.event('participantLeft', (entry) => entry.name === name);
  const told = witness.events.map((entry) => `${entry.event} ${entry.name}`);
  const [character, person] = ['characterLeft Character tutor', `participantLeft ${name}`];
  assert.ok(told.includes(character), told.join());
  assert.ok(told.indexOf(character) < told.indexOf(person), told.join());
}

test('one whose join went unanswered with the connection is taken out at the end', async () => {
  for (const [roomId, first] of [['early', true], ['late', false]]) {
    const grace = joining(roomId, 'Grace');
    await grace.event('joined');
    if (first) await service.control('announceCharacterFirst', { roomId });
    await service.control('loseAnswer', { roomId, method: 'joinCharacter', downMs: 300 });
    const ada = joining(roomId, 'Ada', '--character', 'tutor');
    assert.equal((await ada.event('error')).code, 4033);
    await ada.event('streamEnabled', ({ id }) => id === 'tutor');
    assert.equal(await ada.stop('SIGTERM'), 143);
    await leftBefore(grace, 'Ada');
    await grace.stop('SIGTERM');
  }
});

test('one that is still coming when its program ends is waited for, and that of others stays', async () => {
  const grace = joining('brief', 'Grace');
  await grace.event('joined');
  const brief = ['--character', 'tutor', '--duration', '1ms'];
  assert.equal(await joining('brief', 'Ada', ...brief).ended, 0);
  await leftBefore(grace, 'Ada');
  await grace.stop('SIGTERM');

  const hank = joining('taken', 'Hank', '--character', 'tutor');
  await hank.event('characterJoined');
  assert.equal(await joining('taken', 'Ada', ...brief).ended, 0);
  await hank.event('participantLeft');
  assert.deepEqual(hank.all('characterLeft', 'id'), []);
  await hank.stop('SIGTERM');
});

test('only what is about the character ends the wait for its leaving', async () => {
  const roomId = 'patient';
  const grace = joining(roomId, 'Grace');
  const ada = joining(roomId, 'Ada', '--participant', 'ada', '--character', 'tutor');
  await ada.event('streamEnabled', ({ id }) => id === 'tutor');
  const asked = { roomId, method: 'leaveCharacter' };
  await service.control('answerWrong', { ...asked, answer: {} });
  await service.control('swallowAck', asked);
  ada.child.kill('SIGTERM');
  await until(() => service.lines.some((line) => /leaveCharacter/.test(line) && /patient/.test(line)));
  for (const code of [5001, 5002]) {
    await service.control('notify', { roomId, peerId: 'ada', method: 'error', data: { code } });
    await ada.event('error', (entry) => entry.code === code);
  }
  await service.control('removeCharacter', { roomId, characterId: 'tutor' });
  assert.equal(await ada.ended, 143);
  await leftBefore(grace, 'Ada');
  await grace.stop('SIGTERM');
});

test('what is typed while the connection is away reaches the character after the return', async () => {
  const roomId = 'lossy';
  const ada = talk(service, roomId, 'Ada', '--participant', 'ada', '--character', 'tutor');
  await ada.event('characterJoined');
  await ada.event('historyEnd');
  await service.control('dropSocket', { roomId, peerId: 'ada', downMs: 300 });
  await ada.event('state', being('RECONNECTING'));
  ada.say('@tutor are you there?');
  await ada.event('characterMessage', saidBy('Character tutor'));
  await ada.event('streamEnabled', ({ id }) => id === 'tutor');
  assert.deepEqual(ada.all('characterJoined', 'id'), ['tutor'], 'it was there all the time');
  assert.deepEqual(ada.all('chatError', 'message'), []);

  // Whether it was heard can't be known; what comes next isn't held up by that.
  await service.control('loseAnswer', { roomId, method: 'sendCharacterMessage', downMs: 300 });
  ada.say('@tutor and now?', 'next');
  await ada.event('message', ({ message }) => message === 'next');
  assert.match(ada.all('chatError', 'message').join(), /connection was lost; tutor may not/);

  // What comes of an earlier message says nothing of the next.
  await service.control('answerWrong', { roomId, method: 'sendCharacterMessage', answer: {} });
  ada.say('@tutor hello', 'behind it');
  await until(() => service.lines.filter((line) => /sendCharacterMessage/.test(line)).length >= 3);
  const echo = { roomId, characterId: 'tutor', participantId: 'ada', participantName: 'Ada' };
  await service.control('characterMessage', { ...echo, text: 'and now?' });
  await ada.event('characterMessage', ({ text }) => text === 'and now?');
  for (const code of [5001, 5002, 5003]) {
    await service.control('notify', { roomId, peerId: 'ada', method: 'error', data: { code } });
    await ada.event('error', (entry) => entry.code === code);
  }
  assert.ok(!ada.all('sent', 'message').includes('behind it'), 'held up by "hello"');
  await service.control('characterMessage', { ...echo, text: 'hello' });
  await ada.event('message', ({ message }) => message === 'behind it');
  await ada.stop('SIGTERM');
});

test('the table and the chat show what characters do and say', async () => {
  const roomId = 'shown';
  const [ada, bob] = [
    new TerminalRun(service, folder, roomId, 'Ada', ...quiet),
    new TerminalRun(service, folder, roomId, 'Bob', ...quiet, '--chat'),
  ];
  await ada.shows(/Bob is there/);
  await bob.shows(/joined/);
  await service.control('addCharacter', { roomId, characterId: 'muse', displayName: 'Mu\u001b[5mse' });
  await ada.draws(/^. Mu\?\[5mse listening /);
  await service.control('setCharacter', { roomId, characterId: 'muse', speakMs: 8000 });
  bob.press('@muse a rhyme\r');
  await ada.draws(/^● Mu\?\[5mse speaking /);
  await ada.draws(/^ {4}"You said "a rhyme"/);
  await bob.shows(/\d\d:\d\d:\d\d Bob @Mu\?\[5mse: a rhyme/);
  await bob.shows(/\d\d:\d\d:\d\d Mu\?\[5mse: You said "a rhyme"/);
  const more = { roomId, characterId: 'muse', participantId: 'muse' };
  await service.control('characterMessage', { ...more, text: 'in ms', timestamp: '1700000000000' });
  await bob.shows(/2023-11-1\d \d\d:\d\d:\d\d Mu\?\[5mse: in ms/);
  await service.control('removeCharacter', { roomId, characterId: 'muse' });
  await ada.draws(/^ {2}Mu\?\[5mse +left/);
  ada.press('l');
  bob.press('\u0004');
  for (const run of [ada, bob]) assert.equal(await run.finish(), 0);
});

test('agents are shown with what they do, and tell what they say and measure', async () => {
  const roomId = 'agents';
  const grace = joining(roomId, 'Grace');
  const ada = new TerminalRun(service, folder, roomId, 'Ada', ...quiet);
  await grace.event('participantJoined');
  const metaData = { agent_id: 'a1', agent_name: 'Helper', is_kestrova_agent: true };
  await service.client('helper', { roomId }).join({ metaData, displayName: 'Helper' });
  await ada.draws(/^. Helper IDLE /);
  const agent = { roomId, peerId: 'helper' };
  await service.control('agentState', { ...agent, state: 'thinking' });
  await ada.draws(/^. Helper THINKING /);
  await service.control('agentTranscript', { ...agent, text: 'I see\u001b[2J', timestamp: 7 });
  await ada.shows(/Helper: I see\?\[2J/);
  await service.control('agentMetrics', { ...agent, metrics: { latency: 12 } });
  const { metrics } = await grace.event('agentMetrics');
  assert.equal(metrics.latency, 12);
  assert.deepEqual(grace.all('agentState', 'state'), ['THINKING']);
  const transcripts = grace.events.filter(({ event }) => event === 'agentTranscript');
  assert.deepEqual(
    transcripts.map(({ name, text, timestamp }) => [name, text, timestamp]),
    [['Helper', 'I see\u001b[2J', 7]],
  );
  ada.press('l');
  assert.equal(await ada.finish(), 0);
  await grace.stop('SIGTERM');
});
