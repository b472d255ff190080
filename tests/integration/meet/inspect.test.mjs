import * as assert from 'node:assert/strict';
import { test } from 'node:test';
import { join, joinAs, openPlace, Run } from './support.mjs';
import { TerminalRun } from './terminal.mjs';

const { service, folder } = await openPlace();

const quiet = ['--camera', 'none', '--mic', 'none'];

/** The events of a page, as they come. */
async function* eventsOf(address) {
  const answer = await fetch(`${address}events`);
  assert.equal(answer.headers.get('content-type'), 'text/event-stream');
  let text = '';
  for await (const piece of answer.body.pipeThrough(new TextDecoderStream())) {
    text += piece;
    for (let end; (end = text.indexOf('\n\n')) >= 0; text = text.slice(end + 2)) {
      const found = /^event: (\w+)\ndata: (.*)$/.exec(text.slice(0, end));
      if (found) yield { name: found[1], data: JSON.parse(found[2]) };
    }
  }
}

/** Reads on until an event is as wished. */
async function awaitEvent(events, wished) {
  for (;;) {
    const { value, done } = await events.next();
    assert.ok(!done, 'the page has ended');
    if (wished(value)) return value.data;
  }
}

test('a page shows who comes, how streams flow, and the trace', async () => {
  const ada = join(service, 'seen', 'Ada', '--inspect', '--duration', '60s');
  const { address } = await ada.event('inspector');
  assert.match(address, /^http:\/\/127\.0\.0\.1:\d+\/[0-9a-f]{32}\/$/);
  assert.match(await (await fetch(address)).text(), /<html/);
  assert.equal((await fetch(new URL('/', address))).status, 404);

  const events = eventsOf(address);
  const snapshot = await awaitEvent(events, ({ name }) => name === 'snapshot');
  assert.equal(snapshot.participants[0].name, 'Ada');
  const grace = join(service, 'seen', 'Grace', '--mic', 'none');
  const { id } = await awaitEvent(
    events,
    ({ name, data }) => name === 'participant' && data.name === 'Grace',
  );
  const { stream } = await awaitEvent(
    events,
    ({ name, data }) => name === 'stream' && data.participantId === id,
  );
  assert.equal(stream.kind, 'video');
  await grace.stop('SIGTERM');
  await awaitEvent(events, ({ name, data }) => name === 'participant' && data.leftAt !== null);
  await ada.stop('SIGTERM');
  await assert.rejects(awaitEvent(events, () => false), /the page has ended/);
});

test('the address stays on the screen, and a taken port is a bad argument', async () => {
  const ada = new TerminalRun(service, folder, 'screen', 'Ada', ...quiet, '--inspect=0');
  await ada.draws(/^inspector http:\/\/127\.0\.0\.1:\d+\/[0-9a-f]{32}\/$/);
  const port = /127\.0\.0\.1:(\d+)\/[0-9a-f]{32}/.exec(ada.output)[1];
  const { args, env } = joinAs(service, 'screen', 'Grace');
  const grace = new Run([...args, '--inspect', port], env);
  assert.equal(await grace.ended, 2);
  assert.match(grace.stderr, new RegExp(`127\\.0\\.0\\.1:${port}: Address already in use`));
  ada.press('l');
  assert.equal(await ada.finish(), 0);
});
