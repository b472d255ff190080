import { once } from 'node:events';
import * as https from 'node:https';
import * as path from 'node:path';
import { buffer } from 'node:stream/consumers';
import protobuf from 'protobufjs';
import { post } from './support.mjs';

export const PROTOBUF = 'application/x-protobuf';
const root = protobuf.loadSync(path.join(import.meta.dirname, '../lib/observability/otlp.proto'));
const Request = root.lookupType('otlp.ExportTraceServiceRequest');
export const Response = root.lookupType('otlp.ExportTraceServiceResponse');

// A request with every field of the protocol's version 1.5, also those that the service skips.
export const WHOLE_REQUEST = Buffer.from(
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
export const ITS_SPAN = {
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
export function exported(...spans) {
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


/** Bytes as a field of a message, by its tag. */
export const wrapped = (tag, bytes) =>
  Buffer.from(protobuf.Writer.create().uint32(tag).bytes(bytes).finish());

/** What a client that will join `roomId` is told about where to report. */
export async function told(service, roomId, claims = {}) {
  const { body } = await post(
    service.ca,
    `https://${service.ready.service}/infra/v1/meetings/init-config`,
    { body: { roomId }, headers: { authorization: service.token(claims) } },
  );
  return body.data.observability;
}

/**
 * A client that reports with `authorization`. `begin` gives the request, of which only a part goes
 * out if `length` is above that of the body; `send` waits for the answer.
 */
export function reporter({ ready, ca }, authorization) {
  function begin(sink, body, { headers = {}, agent = false, length } = {}) {
    const bytes = Buffer.isBuffer(body) ? body : Buffer.from(JSON.stringify(body));
    const request = https.request(`https://${ready.service}/observability/${sink}`, {
      method: 'POST',
      ca,
      agent,
      headers: {
        'content-type': sink === 'traces' ? PROTOBUF : 'application/json',
        'content-length': length ?? bytes.length,
        ...(authorization !== undefined && { authorization }),
        ...headers,
      },
    });
    if (length === undefined) request.end(bytes);
    else request.write(bytes);
    return request;
  }
  async function send(sink, body, options) {
    const request = begin(sink, body, options);
    const [response] = await once(request, 'response');
    const port = request.socket.localPort;
    return {
      status: response.statusCode,
      type: response.headers['content-type'],
      bytes: await buffer(response),
      port,
    };
  }
  return { begin, send };
}
