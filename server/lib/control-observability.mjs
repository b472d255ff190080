import { checkMs, fault } from './control-parts.mjs';
import { HttpError } from './http.mjs';

const SINKS = ['logs', 'traces'];

function checkText(body, key) {
  if (body[key] !== undefined && typeof body[key] !== 'string')
    throw new HttpError(400, `"${key}" must be a text`);
}

function sinkFault(kind, ...keys) {
  const order = fault(kind, ...keys);
  return (service, body) => {
    if (!SINKS.includes(body.sink))
      throw new HttpError(400, `"sink" must be one of ${SINKS.join(', ')}`);
    order(service, body);
  };
}

const refuse = sinkFault('refuseSink', 'status');
const slow = sinkFault('slowSink', 'ms');

// From the first to the last end of a span, in ms: how long the reporting went on.
function endsOf(spans) {
  let [firstEnd, lastEnd] = [Infinity, -Infinity];
  for (const { end } of spans) {
    firstEnd = Math.min(firstEnd, end);
    lastEnd = Math.max(lastEnd, end);
  }
  return spans.length === 0 ? {} : { firstEnd, lastEnd, betweenEnds: lastEnd - firstEnd };
}

export const observabilityActions = {
  logs({ observability }, body) {
    for (const key of ['roomId', 'contains']) checkText(body, key);
    const { roomId, contains = '' } = body;
    const { items, requests, totals } = observability.sinks.logs.reports.read(roomId);
    const fits = ({ logText }) => contains === '' || String(logText).includes(contains);
    return { logs: items.filter(fits), requests, totals };
  },
  traces({ observability }, body) {
    for (const key of ['roomId', 'name']) checkText(body, key);
    const { roomId, name } = body;
    const { items, requests, totals } = observability.sinks.traces.reports.read(roomId);
    const spans = items.filter((span) => name === undefined || span.name === name);
    return { spans, requests, totals: { ...totals, ...endsOf(items) } };
  },
  forgetObservability({ observability }, body) {
    checkText(body, 'roomId');
    observability.forget(body.roomId);
  },
  setObservability({ observability }, body) {
    checkText(body, 'roomId');
    const { roomId, observability: value } = body;
    if (value === undefined) observability.unset(roomId);
    else observability.set(roomId, value);
  },
  refuseSink(service, body) {
    const { status } = body;
    if (!Number.isInteger(status) || status < 400 || status > 599)
      throw new HttpError(400, '"status" must be from 400 to 599');
    refuse(service, body);
  },
  hangSink: sinkFault('hangSink', 'early'),
  slowSink(service, body) {
    checkMs(body.ms, 'ms');
    slow(service, body);
  },
};
