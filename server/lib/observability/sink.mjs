import { collect, HttpError, sendText } from '../http.mjs';
import { readReportToken } from '../tokens.mjs';
import { Reports } from './reports.mjs';

const LONGEST_HEADER = 200;
const MOST_DRAINED = 16 * 1024 * 1024;

/** Waits for `ms`, or without it for ever, but never longer than the client does. */
function wait(response, ms) {
  return new Promise((resolve) => {
    if (response.destroyed) return resolve();
    const timer = ms === undefined ? undefined : setTimeout(resolve, ms);
    response.once('close', () => {
      clearTimeout(timer);
      resolve();
    });
  });
}

/** What tests see of a request: of its credential only whether it is good. */
function recordOf({ headers }, number, good) {
  const header = (name) => headers[name]?.slice(0, LONGEST_HEADER) ?? null;
  return {
    number,
    at: Date.now(),
    status: null, // until it is answered
    gone: false,
    authorization: good ? 'ok' : 'wrong',
    contentType: header('content-type'),
    contentEncoding: header('content-encoding'),
    userAgent: header('user-agent'),
    bytes: 0,
    items: 0,
  };
}

/**
 * A path that clients report to. `kind` tells which: its `name`, the `largest` body, how many items
 * of a meeting are kept (`most`), the `success` that is answered, `check(request)` for the headers
 * and `read(bytes, request)`, which gives `items`, and `roomId` if the report names a meeting.
 */
export class Sink {
  #requests = 0;

  constructor(kind, { secret, faults, log }) {
    Object.assign(this, { kind, secret, faults, log });
    this.reports = new Reports({ most: kind.most });
  }

  /** POST of a report: keeps it and says so, or what is wrong with it. */
  async handle(request, response) {
    const { name, success } = this.kind;
    const { roomId, good } = readReportToken(this.secret, request.headers.authorization);
    this.#requests += 1;
    const record = recordOf(request, this.#requests, good);
    response.once('close', () => {
      record.gone = !response.writableFinished;
    });
    const ordered = (fault) => this.faults.take(fault, { sink: name, roomId });
    const hang = ordered('hangSink');
    const [slow, refuse] = hang ? [] : [ordered('slowSink'), ordered('refuseSink')];
    let failure;
    try {
      const body = hang?.early ? undefined : await this.#collect(request, record);
      if (refuse) throw new HttpError(refuse.status, 'refused by the control endpoint');
      if (hang) this.reports.file(roomId, record);
      else await this.#keep(request, body, record, roomId);
    } catch (error) {
      failure = error;
      this.reports.file(roomId, record);
    }
    if (hang || slow) await wait(response, slow?.ms);
    if (response.destroyed) return;
    record.status = failure ? (failure.status ?? 500) : 200;
    this.log.debug('report', { sink: name, roomId, status: record.status, bytes: record.bytes });
    if (failure) throw failure;
    sendText(response, 200, ...success());
  }

  // To its end also where it is refused: who is still sending doesn't hear the answer.
  async #collect(request, record) {
    const largest = record.authorization === 'ok' ? this.kind.largest : 0;
    const { size, bytes } = await collect(request, { largest, drain: MOST_DRAINED });
    record.bytes = size;
    return bytes;
  }

  async #keep(request, body, record, tokenRoomId) {
    const { check, largest, read } = this.kind;
    if (record.authorization !== 'ok')
      throw new HttpError(401, 'the token of the reports is missing, wrong or expired');
    check(request);
    if (!body) throw new HttpError(413, `a body has at most ${largest} bytes`);
    const { items, roomId = tokenRoomId } = await read(body, request);
    const { number: requestNumber, at } = record;
    record.items = items.length;
    this.reports.keep(
      roomId,
      items.map((item) => ({ ...item, requestNumber, at })),
    );
    this.reports.file(roomId, record);
  }
}
