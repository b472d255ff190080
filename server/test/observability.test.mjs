import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as https from 'node:https';
import * as path from 'node:path';
import { buffer } from 'node:stream/consumers';
import { after, before, describe, it } from 'node:test';
import { gzipSync } from 'node:zlib';
import protobuf from 'protobufjs';
import { openService, post, temporaryFolder, until } from './support.mjs';

const PROTOBUF = 'application/x-protobuf';
const root = protobuf.loadSync(
  path.join(import.meta.dirname, '../lib/observability/otlp.proto'),
);
const Request = root.lookupType('otlp.ExportTraceServiceRequest');
const Response = root.lookupType('otlp.ExportTraceServiceResponse');

// A request with every field of the protocol's version 1.5, also those that the service skips.
const WHOLE_REQUEST = Buffer.from(
  [
    'CrsDCh4KGgoMc2VydmljZS5uYW1lEgoKCGtlc3Ryb3ZhEAESkQMKEwoDYWRhEgMxLjIaBwoBeBICEAES8gIKEAABAgME',
    'BQYHCAkKCwwNDg8SCAoLDA0ODwECGgNhPWIiCBESExQVFhcYKgRqb2luMAM5IKExNv6clxdBgLIQRf6clxdKDAoEdGV4',
    'dBIECgLDqUoJCgN5ZXMSAhABSggKAm5vEgIQAEoKCgR6ZXJvEgIYAEoUCgVtaW51cxILGPv//////////wFKEAoDYmln',
    'EgkYgYCAgICAgBBKEQoEaGFsZhIJIQAAAAAAAOA/ShAKA2luZhIJIQAAAAAAAPB/ShUKBGxpc3QSDSoLCgMKAWEKAhgB',
    'CgBKEwoDbWFwEgwyCgoICgFrEgMKAXZKDQoFYnl0ZXMSBDoCAP9KCAoEbm9uZRIAUAJaHgkA4R88/pyXFxIIaGFsZiB3',
    'YXkaBwoBbhICGAEgA2AEajEKEP////////////////////8SCO7u7u7u7u7uGgNjPWQiBwoBbBICGAIoBTUBAAAAcAZ6',
    'CxIHcmVmdXNlZBgChQEBAQAAGgV1cm46cxoFdXJuOnI=',
  ].join(''),
  'base64',
);
const ITS_SPAN = {
  traceId: '000102030405060708090a0b0c0d0e0f',
  spanId: '0a0b0c0d0e0f0102',
  parentSpanId: '1112131415161718',
  name: 'join',
  kind: 'client',
  start: 1700000000000.5,
  end: 1700000000250,
  attributes: {
    ...{ text: 'é', yes: true, no: false, zero: 0, minus: -5, big: '9007199254740993' },
    ...{ half: 0.5, inf: 'Infinity', list: ['a', 1, null], map: { k: 'v' }, bytes: 'AP8=' },
    none: null,
  },
  status: { code: 'error', message: 'refused' },
  events: [{ name: 'half way', time: 1700000000100, attributes: { n: 1 } }],
  links: [{ traceId: 'ff'.repeat(16), spanId: 'ee'.repeat(8), attributes: { l: 2 } }],
  resource: { 'service.name': 'kestrova' },
  scope: { name: 'ada', version: '1.2' },
};

/** An export request of spans, each given by its name and whatever else. */
function exported(...spans) {
  const whole = spans.map((span, i) => ({
    traceId: Buffer.alloc(16, 1),
    spanId: Buffer.alloc(8, i + 1),
    startTimeUnixNano: 1_700_000_000_000_000_000,
    endTimeUnixNano: 1_700_000_000_000_000_000,
    ...span,
  }));
  const message = Request.fromObject({ resourceSpans: [{ scopeSpans: [{ spans: whole }] }] });
  return Buffer.from(Request.encode(message).finish());
}

describe('reports of clients', () => {
  let service;
  before(async () => {
    service = await openService();
  });
  after(() => service.close());

  /** What a client that will join is told. */
  async function told(roomId, claims = {}, here = service) {
    const url = `https://${here.ready.service}/infra/v1/meetings/init-config`;
    const { body } = await post(here.ca, url, {
      body: { roomId },
      headers: { authorization: here.token(claims) },
    });
    return body.data.observability;
  }

  /** Sends a report; `part` sends all but its end. */
  function open(sink, body, { authorization, headers = {}, agent = false, length } = {}) {
    const type = sink === 'traces' ? PROTOBUF : 'application/json';
    const request = https.request(`https://${service.ready.service}/observability/${sink}`, {
      method: 'POST',
      ca: service.ca,
      agent,
      headers: {
        'content-type': type,
        'content-length': length ?? body.length,
        ...(authorization !== undefined && { authorization }),
        ...headers,
      },
    });
    if (length === undefined) request.end(body);
    else request.write(body);
    return request;
  }

  async function report(sink, body, options) {
    const bytes = Buffer.isBuffer(body) ? body : Buffer.from(JSON.stringify(body));
    const [response] = await once(open(sink, bytes, options), 'response');
    return {
      status: response.statusCode,
      type: response.headers['content-type'],
      bytes: await buffer(response),
    };
  }

  const jwt = async (roomId) => (await told(roomId)).jwt;

  it('go where the configuration says, and are kept by meeting', async () => {
    const { ready } = service;
    const { jwt: authorization, ...rest } = await told('kept', { userId: 'u1', email: 7 });
    assert.deepEqual(rest, {
      logs: { enabled: true, endPoint: `https://${ready.service}/observability/logs` },
      traces: { enabled: true, pbEndPoint: `https://${ready.service}/observability/traces` },
      metaData: { userId: 'u1' },
    });
    const log = {
      logText: 'no route',
      logType: 'ERROR',
      attributes: { SDK: 'iOS', peerId: 'ada' },
      debugMode: true,
      dashboardLog: false,
    };
    const headers = { 'user-agent': 'test/1' };
    assert.equal((await report('logs', log, { authorization, headers })).status, 200);
    const elsewhere = { ...log, attributes: { roomId: 'kept-elsewhere' }, more: [1] };
    assert.equal((await report('logs', elsewhere, { authorization })).status, 200);
    const { logs, requests, totals } = await service.control('logs', { roomId: 'kept' });
    const [{ requestNumber, at, ...kept }] = logs;
    assert.deepEqual(kept, log);
    assert.deepEqual(requests, [
      {
        ...{ number: requestNumber, at, status: 200, gone: false, authorization: 'ok' },
        ...{ contentType: 'application/json', contentEncoding: null, userAgent: 'test/1' },
        ...{ bytes: JSON.stringify(log).length, items: 1 },
      },
    ]);
    assert.deepEqual(totals, { requests: 1, bytes: requests[0].bytes, items: 1 });
    const other = await service.control('logs', { roomId: 'kept-elsewhere', contains: 'route' });
    assert.deepEqual(other.logs[0].more, [1]);
    const none = await service.control('logs', { roomId: 'kept-elsewhere', contains: 'ROUTE' });
    assert.deepEqual(none.logs, []);

    const answer = await report('traces', WHOLE_REQUEST, { authorization });
    assert.deepEqual([answer.status, answer.type], [200, PROTOBUF]);
    assert.deepEqual({ ...Response.decode(answer.bytes) }, {});
    const traces = await service.control('traces', { roomId: 'kept', name: 'join' });
    assert.deepEqual(traces.spans, [
      { ...ITS_SPAN, requestNumber: traces.requests[0].number, at: traces.requests[0].at },
    ]);
  });
});
