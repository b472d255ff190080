/**
 * A time in ms that tests set for everything, for a service, for a meeting, or for a service of a
 * meeting. The narrowest that is set counts, and that of a meeting before that of a service.
 */
export class Tempo {
  #set = new Map();

  constructor(fallback) {
    this.fallback = fallback;
  }

  #key({ roomId, service }) {
    return JSON.stringify([roomId ?? null, service ?? null]);
  }

  /** Without `ms` the next wider one counts again. */
  set(scope, ms) {
    if (ms === undefined) this.#set.delete(this.#key(scope));
    else this.#set.set(this.#key(scope), ms);
  }

  of(roomId, service) {
    const scopes = [{ roomId, service }, { roomId }, { service }, {}];
    const key = scopes.map((scope) => this.#key(scope)).find((one) => this.#set.has(one));
    return key === undefined ? this.fallback : this.#set.get(key);
  }
}
