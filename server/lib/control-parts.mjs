import { HttpError } from './http.mjs';

const LONGEST_MS = 600_000;

export function need(value, what) {
  if (value === undefined || value === null) throw new HttpError(404, `no such ${what}`);
  return value;
}

/** A time of the body in ms: a whole number, or nothing where that is allowed. */
export function checkMs(ms, key) {
  if (!Number.isInteger(ms) || ms < 0 || ms > LONGEST_MS)
    throw new HttpError(400, `"${key}" must be a whole number from 0 to ${LONGEST_MS}`);
}

export function checkCount(count, key = 'count') {
  if (!Number.isInteger(count) || count < 1)
    throw new HttpError(400, `"${key}" must be a whole number from 1`);
}

/** An action that orders a fault, whose effect is what the body has under `keys`. */
export const fault =
  (kind, ...keys) =>
  ({ faults }, body) => {
    const { roomId, peerId, method, direction, op, topic, service, sink, at, forMs } = body;
    if (forMs !== undefined) checkMs(forMs, 'forMs');
    const { count = forMs === undefined ? 1 : Infinity } = body;
    if (count !== Infinity) checkCount(count);
    const effect = Object.fromEntries(keys.map((key) => [key, body[key]]));
    const match =
      kind === 'answerConfig'
        ? { roomId }
        : { roomId, peerId, method, direction, op, topic, service, sink, at };
    faults.add(kind, match, effect, { count, ms: forMs ?? Infinity });
  };
