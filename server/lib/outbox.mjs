/**
 * What goes to one socket, in order. Notifications of a batching participant are collected for
 * `batchMs` and sent as one event; anything else sends what is collected first.
 */
export class Outbox {
  #pending = [];
  #timer = undefined;
  batching = false;

  constructor(socket, { batchMs, ackTimeout }) {
    this.socket = socket;
    this.batchMs = batchMs;
    this.ackTimeout = ackTimeout;
  }

  notify(method, data) {
    const notification = { method, data, notification: true };
    if (!this.batching) return this.#emit('notification', notification);
    this.#pending.push(notification);
    this.#timer ??= setTimeout(() => this.flush(), this.batchMs);
  }

  flush() {
    clearTimeout(this.#timer);
    this.#timer = undefined;
    if (this.#pending.length === 0) return;
    this.#emit('batchNotification', { notifications: this.#pending.splice(0) });
  }

  /** Emits any event; gives the client's acknowledgement as a list, or fails when it is late. */
  request(event, args, timeout = this.ackTimeout) {
    this.flush();
    if (!this.socket.connected) return Promise.reject(new Error('the connection is gone'));
    return new Promise((resolve, reject) => {
      const done = (settle, value) => {
        clearTimeout(timer);
        this.socket.off('disconnect', gone);
        settle(value);
      };
      const gone = () => done(reject, new Error('the connection is gone'));
      const late = () => done(reject, new Error(`no acknowledgement within ${timeout} ms`));
      const timer = setTimeout(late, timeout);
      this.socket.once('disconnect', gone);
      this.socket.emit(event, ...args, (...items) => done(resolve, items));
    });
  }

  emit(event, args) {
    this.flush();
    this.socket.emit(event, ...args);
  }

  // Clients acknowledge notifications; nothing here depends on it.
  #emit(event, item) {
    if (this.socket.connected) this.socket.emit(event, item, () => {});
  }
}
