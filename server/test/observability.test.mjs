import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as https from 'node:https';
import { after, before, describe, it } from 'node:test';
import { deflateSync, gzipSync } from 'node:zlib';
import { parseServiceOptions } from '../lib/options.mjs';
import {
  exported,
  ITS_SPAN,
  PROTOBUF,
  reporter,
  Response,
  told,
  WHOLE_REQUEST,
  wrapped,
} from './observability-support.mjs';
import { openService, post, until, within } from './support.mjs';

const NEVER_MS = 600_000;
const EXPIRED = 1_700_000_000;
const log = (logText, attributes = {}) => ({
  ...{ logText, logType: 'ERROR', attributes, debugMode: true, dashboardLog: false },
});

describe('reports of clients', () => {
  let service;
  let meetings = 0;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  /** A meeting of its own, with a client that may report. */
  async function meeting() {
    meetings += 1;
    const roomId = `meeting-${meetings}`;
    const { jwt } = await told(service, roomId);
    const control = (action, body) => service.control(action, { roomId, ...body });
    return { roomId, jwt, control, ...reporter(service, jwt) };
  }

  it('go where the configuration says, and are kept by meeting', async () => {
    const { send, control, roomId } = await meeting();
    const lost = log('no route', { SDK: 'iOS', peerId: 'ada' });
    const headers = { 'user-agent': 'test/1' };
    assert.equal((await send('logs', lost, { headers })).status, 200);
    const elsewhere = { ...log('no road', { roomId: `${roomId}-b` }), more: [1] };
    assert.equal((await send('logs', elsewhere)).status, 200);
    const { logs, requests, totals } = await control('logs');
    const [{ requestNumber, at, ...kept }] = logs;
    assert.deepEqual([logs.length, kept], [1, lost]);
    assert.deepEqual(requests, [
      {
        ...{ number: requestNumber, at, status: 200, gone: false, authorization: 'ok' },
        ...{ contentType: 'application/json', contentEncoding: null, userAgent: 'test/1' },
        ...{ bytes: JSON.stringify(lost).length, items: 1 },
      },
    ]);
    assert.deepEqual(totals, { requests: 1, bytes: requests[0].bytes, items: 1 });
    const other = await control('logs', { roomId: `${roomId}-b`, contains: 'road' });
    assert.deepEqual(other.logs[0].more, [1]);
    assert.deepEqual((await control('logs', { contains: 'ROUTE' })).logs, []);

    const answer = await send('traces', WHOLE_REQUEST);
    assert.deepEqual([answer.status, answer.type], [200, PROTOBUF]);
    assert.deepEqual({ ...Response.decode(answer.bytes) }, {});
    const traces = await control('traces', { name: 'join' });
    const [{ number, at: arrived }] = traces.requests;
    assert.deepEqual(traces.spans, [{ ...ITS_SPAN, requestNumber: number, at: arrived }]);

    await service.control('forgetObservability', { roomId });
    assert.deepEqual((await control('traces')).totals, { requests: 0, bytes: 0, items: 0 });
    assert.equal((await control('logs', { roomId: `${roomId}-b` })).logs.length, 1);
    await service.control('forgetObservability');
    assert.equal((await control('logs', { roomId: `${roomId}-b` })).logs.length, 0);
  });

  it('need their own token, as it stands', async () => {
    const { jwt, roomId, control, send } = await meeting();
    const [, , signature] = jwt.split('.');
    const mine = { apikey: undefined, permissions: undefined, aud: 'observability', roomId };
    const before = (await service.control('traces')).totals.requests;
    const refused = [
      undefined,
      '',
      `Bearer ${jwt}`,
      `${jwt}=`,
      `${jwt.slice(0, -signature.length)}${'A'.repeat(signature.length)}`,
      service.token({ roomId }),
      service.token({ ...mine, aud: 'else' }),
      service.token({ ...mine, roomId: undefined }),
      service.token({ ...mine, exp: EXPIRED }),
    ];
    for (const authorization of refused)
      for (const sink of ['logs', 'traces']) {
        const { status } = await reporter(service, authorization).send(sink, WHOLE_REQUEST);
        assert.equal(status, 401, `${sink} ${authorization}`);
      }
    const { spans, requests } = await control('traces');
    assert.deepEqual([spans, requests.map((r) => r.authorization)], [[], ['wrong']], 'expired');
    const nowhere = (await service.control('traces')).totals.requests - before;
    assert.equal(nowhere, refused.length - 1);
    const good = reporter(service, service.token(mine));
    assert.equal((await good.send('logs', log('x'))).status, 200);

    // The other way round it opens no meeting, whatever else it claims.
    const config = `https://${service.ready.service}/infra/v1/meetings/init-config`;
    for (const authorization of [jwt, service.token({ aud: 'observability' })]) {
      const { body } = await post(service.ca, config, {
        body: { roomId },
        headers: { authorization },
      });
      assert.equal(body.code, 4002);
    }
    await send('traces', Buffer.from('garbage'));
    const seen = service.lines.join('') + JSON.stringify(await control('traces'));
    assert.ok(!seen.includes(jwt.split('.')[1]) && !seen.includes(signature), 'a token is told');
  });

  it('are refused when they are odd, one by one', async () => {
    const { send, control } = await meeting();
    const text = (value) => Buffer.from(value);
    const typed = (type, encoding) => ({
      headers: { 'content-type': type, ...(encoding && { 'content-encoding': encoding }) },
    });
    const gzip = typed(PROTOBUF, 'gzip');
    const deep = (levels) => text(`${'{"a":'.repeat(levels)}1${'}'.repeat(levels)}`);
    // A list in a list, and so on, as the value of an attribute of a span.
    const nested = (lists) =>
      [...Array(lists).fill([0x2a, 0x0a]), [0x2a, 0x12, 0x4a, 0x12, 0x12, 0x0a]]
        .flat()
        .reduce((inner, tag) => wrapped(tag, inner), Buffer.alloc(0));
    const mib = 1024 * 1024;
    const filled = (size) => text(`{"a":"${'x'.repeat(size - 8)}"}`);
    const misspelt = exported({ name: 'qq' });
    misspelt.writeUInt16BE(0xc328, misspelt.indexOf('qq'));
    const cases = [
      ...['', '{', '[]', 'null', '"x"', '{"logText":"\xff"}'].map((body) => [
        ...['logs', Buffer.from(body, 'latin1'), 400],
      ]),
      ['logs', deep(100_000), 400],
      ['logs', deep(50), 200],
      ['logs', filled(mib), 200],
      ['logs', filled(mib + 1), 413],
      ['logs', text('{"__proto__":{"logText":1},"attributes":7}'), 200],
      ['traces', text(''), 200],
      ['traces', WHOLE_REQUEST, 415, typed('application/json')],
      ['traces', WHOLE_REQUEST, 415, typed('')],
      ['traces', WHOLE_REQUEST, 415, typed(PROTOBUF, 'deflate')],
      ['traces', WHOLE_REQUEST, 200, typed('APPLICATION/X-PROTOBUF; charset=x', 'identity')],
      ['traces', gzipSync(WHOLE_REQUEST), 200, gzip],
      ['traces', gzipSync(WHOLE_REQUEST).subarray(0, -9), 400, gzip],
      ['traces', WHOLE_REQUEST, 400, gzip],
      ['traces', deflateSync(WHOLE_REQUEST), 400],
      ['traces', gzipSync(Buffer.alloc(17 * mib)), 413, gzip],
      ['traces', Buffer.alloc(16 * mib + 1), 413],
      ['traces', text('{"resourceSpans":[]}'), 400],
      ['traces', Buffer.from([0x78, 0x01]), 400], // a field of another message
      ['traces', misspelt, 400],
      ['traces', nested(60), 400],
      ['traces', nested(20), 200],
      ...[1, 2, 30, 100, WHOLE_REQUEST.length - 1].map((length) => [
        ...['traces', WHOLE_REQUEST.subarray(0, length), 400],
      ]),
    ];
    for (const [sink, body, status, options] of cases) {
      const answer = await send(sink, body, options);
      assert.equal(answer.status, status, `${sink} ${body.subarray(0, 30)} ${answer.bytes}`);
    }
    const { spans, requests } = await control('traces');
    assert.equal(spans.length, 3);
    let value = spans[2].attributes[''];
    for (let lists = 0; lists < 20; lists += 1) [value] = value;
    assert.deepEqual(value, []);
    const expected = cases.filter(([sink]) => sink === 'traces').map(([, , status]) => status);
    assert.deepEqual(requests.map(({ status }) => status), expected);
    const url = `https://${service.ready.service}/observability/logs`;
    assert.equal((await post(service.ca, url, { method: 'GET' })).status, 405);
  });

  it('may be many, on one connection, of which the newest stay', async (t) => {
    const { send, control } = await meeting();
    const agent = new https.Agent({ keepAlive: true, maxSockets: 1 });
    t.after(() => agent.destroy());
    const bodies = Array.from({ length: 2100 }, (_, i) =>
      i % 100 === 50 ? Buffer.from('{') : log(`line ${i}`),
    );
    const answers = await Promise.all(bodies.map((body) => send('logs', body, { agent })));
    assert.equal(answers.filter(({ status }) => status === 400).length, 21);
    assert.equal(new Set(answers.map(({ port }) => port)).size, 1);
    const { logs, totals } = await control('logs');
    assert.deepEqual([logs.length, totals.requests, totals.items], [2000, 2100, 2079]);
    assert.deepEqual([logs[0].logText, logs.at(-1).logText], ['line 80', 'line 2099']);

    const spans = (from, count) =>
      Array.from({ length: count }, (_, i) => ({
        name: `span ${from + i}`,
        endTimeUnixNano: (from + i) * 1e6,
      }));
    for (const from of [0, 10_500]) await send('traces', exported(...spans(from, 10_500)));
    const traces = await control('traces');
    assert.deepEqual([traces.spans.length, traces.spans[0].name], [20_000, 'span 1000']);
    assert.deepEqual(traces.totals.items, 21_000);
    const numbers = [...new Set(traces.spans.map(({ requestNumber }) => requestNumber))];
    assert.deepEqual(numbers, traces.requests.map(({ number }) => number));
    const { firstEnd, lastEnd, betweenEnds } = traces.totals;
    assert.deepEqual([firstEnd, lastEnd, betweenEnds], [1000, 20_999, 19_999]);
  });

  it('are refused, answered late or never when a test wants it', async () => {
    const { begin, send, control } = await meeting();
    const other = await meeting();
    const lastRequest = async (sink) => (await control(sink)).requests.at(-1);
    for (const status of [401, 413, 429, 503])
      await control('refuseSink', { sink: 'traces', status });
    const statuses = [];
    for (let i = 0; i < 5; i += 1) {
      statuses.push((await send('traces', WHOLE_REQUEST)).status);
      assert.equal((await send('logs', log('not meant'))).status, 200);
      assert.equal((await other.send('traces', WHOLE_REQUEST)).status, 200);
    }
    assert.deepEqual(statuses, [401, 413, 429, 503, 200]);
    const { spans, requests, totals } = await control('traces');
    assert.deepEqual([spans.length, totals.items], [1, 1]);
    assert.deepEqual([requests.map((r) => r.status), requests[0].authorization], [statuses, 'ok']);
    assert.equal(requests[0].bytes, WHOLE_REQUEST.length);

    await control('slowSink', { sink: 'logs', ms: 60 });
    const begun = performance.now();
    assert.equal((await send('logs', log('slow'))).status, 200);
    assert.ok(performance.now() - begun > 55);

    // Kept at once and never answered, read and never answered, never read.
    for (const [action, body, arrives] of [
      ['slowSink', { ms: NEVER_MS }, true],
      ['hangSink', {}, false],
      ['hangSink', { early: true }, false],
    ]) {
      await control(action, { sink: 'logs', ...body });
      const text = `${action} ${JSON.stringify(body)}`;
      const request = begin('logs', log(text), { length: body.early && 5000 });
      const ended = once(request, 'response').then(
        () => 'answered',
        () => 'ended',
      );
      const open = await until(async () => {
        const last = await lastRequest('logs');
        return last?.status === null && !last.gone && last;
      });
      assert.equal(open.bytes > 0, !body.early, text);
      assert.equal((await control('logs', { contains: text })).logs.length, arrives ? 1 : 0);
      request.destroy();
      await until(async () => (await lastRequest('logs')).gone);
      assert.deepEqual([await ended, (await lastRequest('logs')).status], ['ended', null]);
    }

    const request = begin('logs', log('half'), { length: 5000 });
    request.on('error', () => {});
    await once(request, 'socket');
    const { number } = await lastRequest('logs');
    await new Promise((sent) => request.write('more', sent));
    request.destroy();
    await until(async () => {
      const last = await lastRequest('logs');
      return last.number > number && last.gone && last.status === null;
    });
    assert.equal((await send('logs', log('after all'))).status, 200);

    await control('refuseSink', { sink: 'logs', status: 500, forMs: NEVER_MS });
    assert.equal((await send('logs', log('x'))).status, 500);
    await service.control('clearFaults');
    assert.equal((await send('logs', log('x'))).status, 200);
    for (const [action, body] of [
      ['refuseSink', { sink: 'logs', status: 200 }],
      ['refuseSink', { sink: 'metrics', status: 500 }],
      ['hangSink', {}],
      ['slowSink', { sink: 'logs' }],
      ['logs', { contains: 5 }],
      ['traces', { roomId: 5 }],
    ])
      await assert.rejects(control(action, body), /400/, action);
  });

  it('hold up nobody who ends the service', async () => {
    const own = await openService();
    const { jwt } = await told(own, 'room');
    const { begin } = reporter(own, jwt);
    const ends = [];
    for (const early of [false, true]) {
      await own.control('hangSink', { sink: 'traces', early });
      const request = begin('traces', WHOLE_REQUEST, { length: early ? 5000 : undefined });
      ends.push(once(request, 'response').catch(({ code }) => code));
    }
    const there = async () => (await own.control('traces', { roomId: 'room' })).requests;
    await until(async () => (await there()).length === 2);
    await within('the end', (resolve, reject) => own.close().then(resolve, reject));
    assert.deepEqual(await Promise.all(ends), ['ECONNRESET', 'ECONNRESET']);
  });

  it('are asked for as a test, or an option, wants it', async (t) => {
    const off = { jwt: '', logs: { enabled: false, endPoint: '' }, traces: {}, metaData: {} };
    assert.equal(parseServiceOptions(['--no-observability'], {}).noObservability, true);
    const silent = await openService({ noObservability: true });
    t.after(() => silent.close());
    assert.deepEqual(await told(silent, 'room'), off);
    await silent.control('setObservability', { observability: { jwt: 5 } });
    await silent.control('setObservability', { roomId: 'room', observability: null });
    assert.equal(await told(silent, 'room'), null);
    assert.deepEqual(await told(silent, 'else'), { jwt: 5 });
    await silent.control('setObservability', { roomId: 'room' });
    assert.deepEqual(await told(silent, 'room'), { jwt: 5 });
    await silent.control('setObservability');
    assert.deepEqual(await told(silent, 'room'), off);

    const { jwt, ...rest } = await told(service, 'room', { userId: 'u', email: 'a@b' });
    const at = `https://${service.ready.service}/observability`;
    assert.deepEqual(rest, {
      logs: { enabled: true, endPoint: `${at}/logs` },
      traces: { enabled: true, pbEndPoint: `${at}/traces` },
      metaData: { userId: 'u', email: 'a@b' },
    });
    assert.ok(jwt);
    assert.deepEqual((await told(service, 'room', { userId: 7, email: null })).metaData, {});
  });
});
