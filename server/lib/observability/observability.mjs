import { signReportToken } from '../tokens.mjs';
import { LOGS, TRACES } from './kinds.mjs';
import { Sink } from './sink.mjs';

const PATHS = { logs: '/observability/logs', traces: '/observability/traces' };
const OFF = { jwt: '', logs: { enabled: false, endPoint: '' }, traces: {}, metaData: {} };

/** What clients are told about where to report, and the two sinks that take it. */
export class Observability {
  // meeting id, or undefined for all -> what it is told instead
  #set = new Map();

  constructor({ secret, faults, log, address, enabled }) {
    Object.assign(this, { secret, address, enabled });
    this.sinks = {};
    for (const kind of [LOGS, TRACES])
      this.sinks[kind.name] = new Sink(kind, { secret, faults, log });
  }

  /** Rows for the HTTP router. */
  routes() {
    return Object.entries(PATHS).map(([name, path]) => [
      'POST',
      path,
      (request, response) => this.sinks[name].handle(request, response),
    ]);
  }

  /** The answer to one who will join `roomId` with a token of these claims. */
  configuration(roomId, { userId, email }) {
    for (const scope of [roomId, undefined])
      if (this.#set.has(scope)) return this.#set.get(scope);
    if (!this.enabled) return OFF;
    const url = (name) => `https://${this.address()}${PATHS[name]}`;
    return {
      jwt: signReportToken(this.secret, roomId),
      logs: { enabled: true, endPoint: url('logs') },
      traces: { enabled: true, pbEndPoint: url('traces') },
      metaData: {
        ...(typeof userId === 'string' && { userId }),
        ...(typeof email === 'string' && { email }),
      },
    };
  }

  /** Tells `value`, whatever it is, from now on: in a meeting, or wherever none is set. */
  set(roomId, value) {
    this.#set.set(roomId, value);
  }

  unset(roomId) {
    this.#set.delete(roomId);
  }

  /** Forgets what came from a meeting, or everything. */
  forget(roomId) {
    for (const { reports } of Object.values(this.sinks))
      if (roomId === undefined) reports.forgetAll();
      else reports.forget(roomId);
  }
}
