import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { createServer } from 'node:net';
import * as path from 'node:path';
import { createInterface } from 'node:readline';
import { after, before, test } from 'node:test';
import { openService } from '../../../server/test/support.mjs';
import { join, start, talk } from '../meet/support.mjs';

const root = path.join(import.meta.dirname, '../../..');
const build = process.env.KESTROVA_BUILD;
const manualLeave = 1101;

let service;
before(async () => {
  service = await openService();
});
after(() => service.close());

/** One run of an example; its lines can be waited for. */
class Example {
  lines = [];
  stderr = '';
  #waiters = new Set();

  constructor(name, args, env = { SSL_CERT_FILE: service.ready.ca, KESTROVA_TOKEN: service.token() }) {
    this.child = start(path.join(build, 'examples', name, name), args, {
      env: { ...process.env, ...env },
      stdio: ['ignore', 'pipe', 'pipe'],
    });
    createInterface({ input: this.child.stdout }).on('line', (line) => {
      this.lines.push(line);
      for (const look of this.#waiters) look();
    });
    this.child.stderr.on('data', (data) => (this.stderr += data));
    this.ended = once(this.child, 'close').then(([code, signal]) => code ?? signal);
    this.ended.then(() => this.#waiters.forEach((look) => look(true)));
  }

  /** Resolves with the first line that matches, now or later. */
  says(pattern) {
    return new Promise((resolve, reject) => {
      const look = (gone) => {
        const found = this.lines.find((line) => pattern.test(line));
        if (found === undefined && !gone) return;
        this.#waiters.delete(look);
        if (found !== undefined) resolve(found);
        else reject(new Error(`ended without ${pattern}: ${this.lines.join('\n')}\n${this.stderr}`));
      };
      this.#waiters.add(look);
      look(false);
    });
  }
  stop() {
    this.child.kill('SIGINT');
    return this.ended;
  }
}

const inMeeting = (name, meeting, ...more) => new Example(name, [service.ready.service, meeting, ...more]);
const named = (name) => (entry) => entry.name === name;

async function closedPort() {
  const server = createServer().listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address();
  await new Promise((resolve) => server.close(resolve));
  return port;
}

test('without arguments each says how it is called', async () => {
  for (const name of fs.readdirSync(path.join(root, 'examples'))) {
    if (!fs.existsSync(path.join(root, 'examples', name, 'main.cpp'))) continue;
    const run = new Example(name, []);
    assert.equal(await run.ended, 2, name);
    assert.match(run.stderr, new RegExp(`^usage: .*${name}`), name);
  }
});

test('a join that fails ends with an error that says why, once', async () => {
  const address = `127.0.0.1:${await closedPort()}`;
  for (const [name, ...args] of [
    ['first-meeting', 'token', address, 'm'],
    ['monitor', address, 'm'],
    ['watch-pictures', address, 'm'],
  ]) {
    const run = new Example(name, args);
    assert.equal(await run.ended, 1, name);
    assert.match(run.stderr, /^[^\n]*can't be joined: 3047 [^\n]*\(connection refused\)\n$/, name);
  }
});

test('a join that nobody has answered yet can be ended', async () => {
  const host = join(service, 'lobby', 'Host');
  await host.event('joined');
  const asking = { KESTROVA_TOKEN: service.token({ permissions: ['ask_join'] }) };
  const waiting = new Example('monitor', [service.ready.service, 'lobby'], {
    SSL_CERT_FILE: service.ready.ca,
    ...asking,
  });
  await waiting.says(/^CONNECTED$/);
  assert.equal(await waiting.stop(), 0, waiting.stderr);
  assert.equal(await host.stop('SIGINT'), 130);
});

test('monitor tells who comes, sends and goes, and says goodbye on Ctrl-C', async () => {
  const witness = join(service, 'watched', 'Witness');
  await witness.event('joined');
  const monitor = inMeeting('monitor', 'watched');
  await monitor.says(/^Witness is here$/);
  const ada = join(service, 'watched', 'Ada', '--camera', 'none', '--mic', 'tone');
  await monitor.says(/^Ada sends audio$/);
  await ada.stop('SIGINT');
  await monitor.says(/^Ada left: /);
  await witness.event('participantJoined', named('Monitor'));
  assert.equal(await monitor.stop(), 0, monitor.stderr);
  const left = await witness.event('participantLeft', named('Monitor'));
  assert.equal(left.reason, manualLeave);
  await witness.stop('SIGINT');
});

test('echo says back what it hears', async () => {
  const echo = inMeeting('echo', 'cave');
  const ada = join(service, 'cave', 'Ada', '--camera', 'none', '--mic', 'tone', '--tone-hz', '660',
    '--duration', '4s');
  await echo.says(/^echoing Ada$/);
  assert.equal(await ada.ended, 0, ada.stderr);
  const heard = ada.summary.remotes.find(named('Echo'));
  assert.ok(Math.abs(heard.hertz - 660) < 5, JSON.stringify(heard));
  assert.equal(await echo.stop(), 0, echo.stderr);
});

test('slides are shown here and, after the move, there', async () => {
  const here = join(service, 'hall', 'Here');
  const there = join(service, 'garden', 'There');
  await Promise.all([here.event('joined'), there.event('joined')]);
  const slides = inMeeting('slides', 'hall', 'garden');
  const gone = await here.event('participantLeft', named('Slides'));
  assert.equal(gone.reason, 1005);
  await slides.says(/^joined garden$/);
  await there.event('participantJoined', named('Slides'));
  await there.event('firstPicture', named('Slides'));
  await here.event('firstPicture', named('Slides'));
  assert.equal(await slides.stop(), 0, slides.stderr);
  await there.event('participantLeft', named('Slides'));
  await Promise.all([here.stop('SIGINT'), there.stop('SIGINT')]);
});

test('chat-bot knows what was said before it came, and says it again', async () => {
  const ada = talk(service, 'archive', 'Ada');
  ada.say('first', 'second');
  await ada.event('message', (entry) => entry.message === 'second');
  const bot = inMeeting('chat-bot', 'archive');
  const said = (message) => ada.event('message', (entry) => entry.message === message);
  assert.equal((await said('I know 2 messages')).senderName, 'Chat bot');
  ada.say('third', '!history 2');
  const { senderId } = await said('Ada: third');
  await service.control('dropSocket', { roomId: 'archive', peerId: senderId });
  await said('I know 3 messages');
  ada.say('!history 99', '!history none', '!history -1', 'fourth', '!history 1');
  await said('Ada: fourth');
  const answers = ada.all('message', 'message').filter((line) => line.startsWith('Ada: '));
  const all = ['Ada: first', 'Ada: second', 'Ada: third'];
  assert.deepEqual(answers, [...all.slice(1), ...all, ...all, 'Ada: fourth']);
  assert.equal(await bot.stop(), 0, bot.stderr);
  await ada.stop('SIGINT');
});

test('shared-counter is raised by everybody, and everybody sees it', async () => {
  const first = inMeeting('shared-counter', 'counting', '2');
  await first.says(/^2 by /);
  const second = inMeeting('shared-counter', 'counting');
  await first.says(/^3 by /);
  await second.says(/^3 by /);
  assert.deepEqual(second.lines.length, 1);
  for (const run of [first, second]) assert.equal(await run.stop(), 0, run.stderr);
});

test("README's trial works when it is pasted as one block", async () => {
  const readme = fs.readFileSync(path.join(root, 'README.md'), 'utf8');
  const block = /^ {4}make build[^]*?\n\n/m.exec(readme)[0];
  // Another port than the one that everybody tries first, and what is built already.
  const script = block
    .replaceAll('8443', String(await closedPort()))
    .replaceAll('build/release/', `${build}/`)
    .replace(/^ {4}make build\b.*$/m, '');
  const bash = start('bash', ['-m'], { cwd: root, stdio: ['pipe', 'pipe', 'pipe'] });
  let out = '';
  bash.stdout.on('data', (data) => (out += data));
  bash.stderr.on('data', (data) => (out += data));
  bash.stdin.end(`${script}\nwait\n`);
  const [code] = await once(bash, 'close');
  assert.equal(code, 0, out);
  assert.match(out, /^Grace is here$/m);
  const ends = out.match(/info disconnected .*/g);
  assert.equal(ends.length, 2, out);
  for (const end of ends) assert.match(end, /client namespace disconnect/, 'main says goodbye');
});
