import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import { createServer } from 'node:net';
import * as path from 'node:path';
import { createInterface } from 'node:readline';
import { after, before, test } from 'node:test';
import { openService } from '../../../server/test/support.mjs';
import { join, start, talk } from '../meet/support.mjs';
import { TerminalRun } from '../meet/terminal.mjs';

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
  const ada = join(service, 'watched', 'Ada\u001b[2J', '--camera', 'none', '--mic', 'tone');
  await monitor.says(/^Ada\?\[2J sends audio$/);
  await ada.stop('SIGINT');
  await monitor.says(/^Ada\?\[2J left: /);
  await witness.event('participantJoined', named('Monitor'));
  assert.equal(await monitor.stop(), 0, monitor.stderr);
  const left = await witness.event('participantLeft', named('Monitor'));
  assert.equal(left.reason, manualLeave);
  await witness.stop('SIGINT');
});

test('metrics prints the numbers of every stream', async () => {
  const metrics = inMeeting('metrics', 'measured');
  const ada = join(service, 'measured', 'Ada', '--camera', 'pattern', '--mic', 'tone');
  await metrics.says(/^who,kind,kbit\/s,fps,/);
  const numbers = await metrics.says(/^Ada,video,[1-9]\d*,[1-9]/);
  assert.equal(numbers.split(',').length, metrics.lines[0].split(',').length);
  await metrics.says(/^Ada,audio,[1-9]\d*,0\.0,0x0,/);
  assert.equal(await metrics.stop(), 0, metrics.stderr);
  assert.equal(await ada.stop('SIGINT'), 130);
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

test('kiosk does what the desk asks of it, in an encrypted meeting', async () => {
  const key = { KESTROVA_KEY: 'of the lobby', SSL_CERT_FILE: service.ready.ca, KESTROVA_TOKEN: service.token() };
  const ada = talk(service, 'lobby-desk', 'Ada');
  await ada.event('joined');
  const kiosk = new Example('kiosk', [service.ready.service, 'lobby-desk'], key);
  await ada.event('participantJoined', named('Kiosk'));
  // It listens from a moment after its join on: ask until it answers.
  const asking = setInterval(() => ada.say('mic'), 250);
  const answer = await ada.event('message', (entry) => entry.senderName === 'Kiosk' && /microphone$/.test(entry.message));
  clearInterval(asking);
  assert.equal(answer.message, 'no microphone');
  assert.equal(await kiosk.stop(), 0, kiosk.stderr);
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

/** Writes a .wav file of so many ms of a tone, and silence behind it. */
function wavOfSpeech(file, speakMs, quietMs) {
  const rate = 16000;
  const samples = Buffer.alloc(((speakMs + quietMs) * rate * 2) / 1000);
  for (let n = 0; n < (speakMs * rate) / 1000; n++)
    samples.writeInt16LE(Math.round(8000 * Math.sin((n * 2 * Math.PI * 300) / rate)), 2 * n);
  const header = Buffer.alloc(44);
  header.write('RIFF');
  header.writeUInt32LE(36 + samples.length, 4);
  header.write('WAVEfmt ', 8);
  header.writeUInt32LE(16, 16);
  header.writeUInt16LE(1, 20);
  header.writeUInt16LE(1, 22);
  header.writeUInt32LE(rate, 24);
  header.writeUInt32LE(rate * 2, 28);
  header.writeUInt16LE(2, 32);
  header.writeUInt16LE(16, 34);
  header.write('data', 36);
  header.writeUInt32LE(samples.length, 40);
  fs.writeFileSync(file, Buffer.concat([header, samples]));
  return file;
}

/** How many ms of a .wav file are not silent. */
function msOfSound(file) {
  const wav = fs.readFileSync(file);
  const channels = wav.readUInt16LE(22);
  const block = (wav.readUInt32LE(24) / 100) * channels * 2;
  let loud = 0;
  for (let at = 44; at + block <= wav.length; at += block) {
    const samples = new Int16Array(wav.buffer.slice(wav.byteOffset + at, wav.byteOffset + at + block));
    if (samples.some((sample) => Math.abs(sample) > 500)) loud += 10;
  }
  return loud;
}

const answerTo = (name) => (entry) => entry.senderName === 'Agent' && entry.message.startsWith(`${name} spoke for `);
const msSpoken = ({ message }) => Number(/(\d+) ms$/.exec(message)[1]);
/** Resolves when `run` has told of its participants, which it does every second, so many times more. */
async function samples(run, count) {
  const before = run.all('sample', 'ms').length;
  await run.event('sample', () => run.all('sample', 'ms').length >= before + count);
}
/** The first event of those that are still to come. */
const next = (run, name, matches) => {
  const known = new Set(run.events);
  return run.event(name, (entry) => !known.has(entry) && matches(entry));
};

test('agent answers who has spoken by a message and by sound, also after a drop, and no agents', async () => {
  const grace = talk(service, 'interview', 'Grace');
  await grace.event('joined');
  const agent = inMeeting('agent', 'interview');
  const { id } = await grace.event('participantJoined', named('Agent'));
  const other = inMeeting('agent', 'interview');
  await grace.event('participantJoined', (entry) => named('Agent')(entry) && entry.id !== id);
  const speech = wavOfSpeech(path.join(service.state, 'speech.wav'), 1500, 3000);
  const ada = join(service, 'interview', 'Ada', '--camera', 'none', '--mic', speech);
  const answer = await grace.event('message', answerTo('Ada'));
  assert.ok(Math.abs(msSpoken(answer) - 1500) < 300, answer.message);
  await grace.event('firstSound', named('Agent'));

  const back = next(grace, 'streamEnabled', (entry) => entry.id === id);
  await service.control('dropSocket', { roomId: 'interview', peerId: id });
  await back;
  const hank = join(service, 'interview', 'Hank', '--camera', 'none', '--mic', 'none');
  await hank.event('firstSound', (entry) => entry.id === id);
  await next(grace, 'message', (entry) => entry.senderId === id);
  for (const run of [agent, other]) {
    assert.equal(await run.stop(), 0, run.stderr);
    for (const line of run.lines) assert.match(line, /^Ada spoke for /, 'and nobody else');
  }
  await Promise.all([ada, grace, hank].map((run) => run.stop('SIGINT')));
});

test('agent falls silent when somebody speaks, and hears out who leaves', async () => {
  const folder = path.join(service.state, 'interrupted');
  const listener = talk(service, 'debate', 'Listener', '--record', folder);
  const grace = talk(service, 'debate', 'Grace');
  await Promise.all([listener.event('joined'), grace.event('joined')]);
  const agent = inMeeting('agent', 'debate');
  await listener.event('participantJoined', named('Agent'));
  const ada = new TerminalRun(service, service.state, 'debate', 'Ada', '--camera', 'none');
  await listener.event('firstSound', named('Ada'));
  await samples(listener, 6);
  ada.press('m');
  const answer = await grace.event('message', answerTo('Ada'));
  await listener.event('firstSound', named('Agent'));
  ada.press('m');
  await next(listener, 'streamEnabled', named('Ada'));
  await samples(listener, 5);
  await listener.stop('SIGINT');
  const whole = (1 + Math.floor(msSpoken(answer) / 500)) * 300;
  const heard = msOfSound(path.join(folder, 'Agent.wav'));
  assert.ok(heard > 200 && heard < (whole * 2) / 3, `${heard} ms of ${whole}`);

  const last = next(grace, 'message', answerTo('Ada'));
  ada.press('l');
  assert.ok(msSpoken(await last) > 2000, 'what was said before leaving');
  assert.equal(await ada.finish(), 0);
  assert.equal(await agent.stop(), 0, agent.stderr);
  await grace.stop('SIGINT');
});

test('agent says what it could not write, as who speaks loses it in the middle', async () => {
  const grace = talk(service, 'tunnel', 'Grace');
  await grace.event('joined');
  const agent = inMeeting('agent', 'tunnel');
  const { id } = await grace.event('participantJoined', named('Agent'));
  const ada = join(service, 'tunnel', 'Ada\u001b[2J', '--camera', 'none', '--mic', 'tone');
  await grace.event('firstSound', named('Ada\u001b[2J'));
  await samples(grace, 2);
  await service.control('dropSocket', { roomId: 'tunnel', peerId: id, downMs: 300 });
  await agent.says(/^Ada\?\[2J spoke for \d+ ms$/);
  assert.equal(await agent.stop(), 0, agent.stderr);
  assert.match(agent.stderr, /^not written: [^\n]+\n$/);
  for (const run of [ada, grace]) await run.stop('SIGINT');
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
