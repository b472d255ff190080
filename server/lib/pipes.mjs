const PIPE = { listenInfo: { protocol: 'udp', ip: '127.0.0.1' } };

// A producer's way to the router of another worker. There is one however many want it: `holders`
// until they let go, and with `kept` those who never do, until the producer closes.
function open(producer, from, to) {
  to.appData.piped ??= new Map();
  const { piped } = to.appData;
  const known = piped.get(producer.id);
  if (known) return known;
  const pipe = { holders: 0, kept: false, ends: undefined };
  const forget = () => {
    if (piped.get(producer.id) === pipe) piped.delete(producer.id);
  };
  pipe.made = from.pipeToRouter({ producerId: producer.id, router: to, ...PIPE }).then(
    (ends) => {
      pipe.ends = ends;
      ends.pipeProducer.observer.once('close', forget);
      closeUnused(pipe);
    },
    (error) => {
      forget();
      throw error;
    },
  );
  pipe.made.catch(() => {});
  producer.observer.once('close', forget);
  piped.set(producer.id, pipe);
  return pipe;
}

// One that is not made yet stays known until then: the router takes a producer only once.
function closeUnused({ holders, kept, ends }) {
  if (holders === 0 && !kept) ends?.pipeProducer.close();
}

/** Makes `producer`, which is on router `from`, known on router `to` of another worker. */
export async function reach(producer, from, to) {
  if (from === to) return;
  const pipe = open(producer, from, to);
  pipe.kept = true;
  await pipe.made;
}

/** Pipes that somebody needs for a while. */
export class Pipes {
  #held = new Map(); // producer id -> router -> pipe

  /** Like `reach`, until the producer is released here. */
  async reach(producer, from, to) {
    if (from === to) return;
    if (!this.#held.has(producer.id)) {
      this.#held.set(producer.id, new Map());
      producer.observer.once('close', () => this.#held.delete(producer.id));
    }
    const pipes = this.#held.get(producer.id);
    const pipe = open(producer, from, to);
    if (pipes.get(to) !== pipe) pipe.holders += 1;
    pipes.set(to, pipe);
    await pipe.made;
  }

  release(producer) {
    const pipes = this.#held.get(producer.id);
    this.#held.delete(producer.id);
    for (const pipe of pipes?.values() ?? []) {
      pipe.holders -= 1;
      closeUnused(pipe);
    }
  }

  releaseAll() {
    for (const id of [...this.#held.keys()]) this.release({ id });
  }
}
