import * as path from 'node:path';
import protobuf from 'protobufjs';

const root = protobuf.loadSync(path.join(import.meta.dirname, 'otlp.proto'));
const Request = root.lookupType('otlp.ExportTraceServiceRequest');
const Response = root.lookupType('otlp.ExportTraceServiceResponse');
const KINDS = root.lookupEnum('otlp.Span.SpanKind').valuesById;
const CODES = root.lookupEnum('otlp.Status.StatusCode').valuesById;

export const emptyResponse = () => Response.encode({}).finish();

const hex = (bytes) => Buffer.from(bytes).toString('hex');
// Nanoseconds since 1970 are beyond the whole numbers of a double, ms with a fraction are not.
function ms(long) {
  const nanoseconds = BigInt(String(long));
  return Number(nanoseconds / 1_000_000n) + Number(nanoseconds % 1_000_000n) / 1e6;
}

// "SPAN_KIND_CLIENT" is "client"; a number that has no name stays one.
const word = (names, prefix, number) => names[number]?.slice(prefix.length).toLowerCase() ?? number;

function integer(long) {
  const number = Number(String(long));
  return Number.isSafeInteger(number) ? number : String(long);
}

/** An attribute's value as JSON has it: what JSON lacks becomes text, bytes are base64. */
function valueOf(any) {
  switch (any?.value) {
    case 'intValue':
      return integer(any.intValue);
    case 'doubleValue':
      return Number.isFinite(any.doubleValue) ? any.doubleValue : String(any.doubleValue);
    case 'arrayValue':
      return any.arrayValue.values.map(valueOf);
    case 'kvlistValue':
      return attributesOf(any.kvlistValue.values);
    case 'bytesValue':
      return Buffer.from(any.bytesValue).toString('base64');
    case undefined:
      return null;
    default:
      return any[any.value];
  }
}

const attributesOf = (list) =>
  Object.fromEntries(list.map(({ key, value }) => [key, valueOf(value)]));

const eventOf = ({ name, timeUnixNano, attributes }) => ({
  name,
  time: ms(timeUnixNano),
  attributes: attributesOf(attributes),
});

const linkOf = ({ traceId, spanId, attributes }) => ({
  traceId: hex(traceId),
  spanId: hex(spanId),
  attributes: attributesOf(attributes),
});

const spanOf = (span, resource, scope) => ({
  traceId: hex(span.traceId),
  spanId: hex(span.spanId),
  parentSpanId: hex(span.parentSpanId),
  name: span.name,
  kind: word(KINDS, 'SPAN_KIND_', span.kind),
  start: ms(span.startTimeUnixNano),
  end: ms(span.endTimeUnixNano),
  attributes: attributesOf(span.attributes),
  status: {
    code: word(CODES, 'STATUS_CODE_', span.status?.code ?? 0),
    message: span.status?.message ?? '',
  },
  events: span.events.map(eventOf),
  links: span.links.map(linkOf),
  resource,
  scope,
});

/** The spans of an export request as plain objects, in its order. Throws when it is none. */
export function spansOf(bytes) {
  const { resourceSpans } = Request.decode(bytes);
  // The decoder skips what it doesn't know, and so finds sense in some garbage.
  if (bytes.length > 0 && resourceSpans.length === 0) throw new Error('the request holds no spans');
  return resourceSpans.flatMap(({ resource, scopeSpans }) => {
    const attributes = attributesOf(resource?.attributes ?? []);
    return scopeSpans.flatMap(({ scope, spans }) => {
      const { name = '', version = '' } = scope ?? {};
      return spans.map((span) => spanOf(span, attributes, { name, version }));
    });
  });
}
