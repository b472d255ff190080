/**
 * A participant of another meeting as it is shown in this one. To those who receive it, `media`
 * stands for its own.
 */
export class Guest {
  constructor({ id, original, pipes, onHide, onGiveWay }) {
    Object.assign(this, { id, original, hide: onHide, giveWay: onGiveWay });
    this.media = new GuestMedia(id, pipes);
  }

  describe() {
    return { ...this.original.describe(), id: this.id };
  }

  /** What it is told of those who receive it, its original hears. */
  notify(method, data) {
    this.original.notify(method, data);
  }
}

class GuestMedia {
  producers = new Map();
  #routers = new WeakMap();
  #pipes;

  constructor(peerId, pipes) {
    this.peerId = peerId;
    this.#pipes = pipes;
  }

  add(producer, router) {
    this.#routers.set(producer, router);
    this.producers.set(producer.id, producer);
  }

  routerOf(producer) {
    return this.#routers.get(producer);
  }

  async reach(producer, router) {
    if (!this.producers.has(producer.id)) throw new Error('the producer is not shown any more');
    await this.#pipes.reach(producer, this.routerOf(producer), router);
  }
}
