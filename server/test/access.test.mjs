import * as assert from 'node:assert/strict';
import { execFile, execFileSync, spawn } from 'node:child_process';
import { createHmac } from 'node:crypto';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { after, before, describe, it } from 'node:test';
import { promisify } from 'node:util';
import { openService, post, temporaryFolder, until } from './support.mjs';

const bin = (name) => path.join(import.meta.dirname, '../bin', name);
const PATH = '/infra/v1/meetings/init-config';

describe('who may enter', () => {
  let service;
  let url;
  before(async () => {
    service = await openService();
    url = `https://${service.ready.service}${PATH}`;
  });
  after(() => service.close());

  const expired = () => service.token({ exp: Date.now() / 1000 - 1 });
  const forged = () => `${service.token().slice(0, -4)}AAAA`;
  function unsigned() {
    const part = (value) => Buffer.from(JSON.stringify(value)).toString('base64url');
    const [, claims] = service.token().split('.');
    return `${part({ alg: 'none' })}.${claims}.`;
  }
  function otherAlgorithm() {
    const body = `${btoa('{"alg":"RS256"}').replace(/=/g, '')}.${service.token().split('.')[1]}`;
    const secret = fs.readFileSync(service.ready.secretFile, 'utf8').trim();
    return `${body}.${createHmac('sha256', secret).update(body).digest('base64url')}`;
  }

  // [token, meeting, code]
  const refusals = [
    [() => undefined, 'room', 4002],
    [() => '', 'room', 4002],
    [() => 'a.b', 'room', 4002],
    [() => 'a.b.c', 'room', 4002],
    [() => `Bearer ${service.token()}`, 'room', 4002],
    [forged, 'room', 4002],
    [unsigned, 'room', 4002],
    [otherAlgorithm, 'room', 4002],
    [expired, 'room', 4002],
    [() => service.token({ exp: undefined }), 'room', 4002],
    [() => service.token({ apikey: 'else' }), 'room', 4001],
    [() => service.token(), '', 4003],
    [() => service.token(), 'a b', 4003],
    [() => service.token(), 7, 4003],
    [() => service.token(), 'x'.repeat(200), 4003],
    [() => service.token({ permissions: [] }), 'room', 4008],
    [() => service.token({ permissions: ['everything'] }), 'room', 4008],
    [() => service.token({ permissions: ['ask_join', 'allow_mod'] }), 'room', 4008],
    [() => service.token({ roomId: 'another' }), 'room', 4022],
  ];

  it('tells where a meeting is, or why not', async () => {
    const ask = (token, body) =>
      post(service.ca, url, { body, headers: token === undefined ? {} : { authorization: token } });
    const good = await ask(service.token({ roomId: 'room' }), { roomId: 'room' });
    assert.equal(good.status, 200);
    const { observability, ...where } = good.body.data;
    assert.ok(observability);
    assert.deepEqual(where, { baseUrl: service.ready.service, socketPath: '/meeting' });
    for (const [token, roomId, code] of refusals) {
      const { status, body } = await ask(token(), { roomId });
      assert.ok(
        body.code === code && status >= 400 && body.error,
        `${code}: ${JSON.stringify([status, body])}`,
      );
    }
    for (const [body, status] of [
      ['{', 400],
      ['[]', 400],
      ['', 400],
      ['"x"', 400],
      ['x'.repeat(1e6), 413],
    ]) {
      assert.equal((await ask(service.token(), body)).status, status, body.slice(0, 9));
    }
    assert.equal((await post(service.ca, `${url}/more`, { body: '' })).status, 404);
    assert.equal((await post(service.ca, url, { body: '', method: 'PUT' })).status, 405);
    await service.control('answerConfig', { status: 502, text: '[1', roomId: 'room' });
    await assert.rejects(ask(service.token(), { roomId: 'room' }), SyntaxError);
    assert.equal((await ask(service.token(), { roomId: 'room' })).status, 200);
    await assert.rejects(post(undefined, url, { body: '{}' }), /certificate/);
  });

  it('refuses a connection with the same numbers', async () => {
    const more = [
      [() => service.token(), 'room', 4004, { peerId: '' }],
      [() => service.token(), 'room', 4004, { peerId: 'a b' }],
      [() => service.token({ participantId: 'bob' }), 'room', 4023, {}],
      [() => service.token(), 'room', 4025, { mode: 'SINGING' }],
    ];
    for (const [token, roomId, code, query] of [...refusals, ...more]) {
      if (typeof roomId !== 'string') continue;
      const client = service.client('ada', {
        roomId,
        token: token() ?? '',
        query,
        reconnection: false,
      });
      const { code: given, message } = await client.next('connect_error');
      assert.ok(given === code && message, `${code} ${given}`);
      client.socket.disconnect();
    }
    assert.deepEqual((await service.control('rooms')).rooms, []);
    const log = service.lines.join('');
    assert.ok(!log.includes(service.token().split('.')[1].slice(0, 20)), 'a token is in the log');
  });
});

describe('the programs', () => {
  const state = temporaryFolder();
  const started = [];
  after(() => {
    for (const child of started) child.kill('SIGKILL');
    fs.rmSync(state, { recursive: true, force: true });
  });

  async function start(...args) {
    const child = spawn(bin('service'), ['--state', state, ...args], {
      stdio: ['pipe', 'pipe', 'pipe'],
    });
    started.push(child);
    const [line] = await once(child.stdout, 'data');
    return { child, ready: JSON.parse(line) };
  }

  async function workersOf({ ready }) {
    const authorization = fs.readFileSync(ready.controlKeyFile, 'utf8').trim();
    const { body } = await post(fs.readFileSync(ready.ca), `${ready.control}/rooms`, {
      body: {},
      headers: { authorization },
    });
    return body.workers;
  }

  const alive = (pid) => fs.existsSync(`/proc/${pid}`);

  it('start at once with one state, make good tokens, and leave nothing behind', async () => {
    const readyFile = path.join(state, 'ready.json');
    const services = await Promise.all([
      start('--with-parent', '--ready-file', readyFile),
      start(),
    ]);
    assert.deepEqual(JSON.parse(fs.readFileSync(readyFile)), services[0].ready);
    for (const name of ['secretFile', 'controlKeyFile']) {
      assert.equal(fs.statSync(services[0].ready[name]).mode & 0o777, 0o600);
    }
    const answers = [];
    for (const [expires, meeting] of [
      ['1h', 'room'],
      ['-1h', 'room'],
      ['1h', 'else'],
    ]) {
      const authorization = execFileSync(
        bin('token'),
        ['--state', state, '--meeting', meeting, '--expires', expires],
        { encoding: 'utf8' },
      ).trim();
      for (const { ready } of services) {
        const answer = await post(fs.readFileSync(ready.ca), `https://${ready.service}${PATH}`, {
          body: { roomId: 'room' },
          headers: { authorization },
        });
        answers.push(answer.body.code ?? answer.status);
      }
    }
    assert.deepEqual(answers, [200, 200, 4002, 4002, 4022, 4022]);

    const workers = (await Promise.all(services.map(workersOf))).flat();
    assert.ok(workers.length === 2 && workers.every(alive));
    const begun = Date.now();
    services[0].child.stdin.end();
    services[1].child.kill('SIGTERM');
    const codes = await Promise.all(
      services.map(async ({ child }) => (await once(child, 'exit'))[0]),
    );
    assert.deepEqual(codes, [0, 0]);
    assert.ok(Date.now() - begun < 10000, 'ends before any time-out of a connection');
    await until(() => !workers.some(alive));
  });

  it('say what is wrong with their arguments', async () => {
    const run = promisify(execFile);
    for (const [name, ...args] of [
      ['service', '--port', 'x'],
      ['service', '--nothing'],
      ['service', '--log-level', 'loud'],
      ['token', '--expires', 'soon'],
      ['token', '--state'],
    ]) {
      await assert.rejects(
        run(bin(name), args),
        (error) => error.code === 2 && error.stderr.length > 10,
      );
    }
    const { child, ready } = await start();
    const port = ready.service.split(':')[1];
    await assert.rejects(run(bin('service'), ['--state', state, '--port', port]), /EADDRINUSE/);
    child.kill('SIGINT');
    assert.deepEqual(await once(child, 'exit'), [0, null]);
  });
});
