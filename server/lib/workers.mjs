import * as fs from 'node:fs';
import { setTimeout as delay } from 'node:timers/promises';
import * as mediasoup from 'mediasoup';

const KILL_AFTER_MS = 1000;
const DEATHS = { most: 3, withinMs: 60000 };

/** The mediasoup workers. A worker that dies is replaced; if that goes on, `onFatal` is called. */
export class Workers {
  #workers = [];
  #deaths = [];
  #next = 0;
  #closed = false;

  constructor({ count, log, onFatal }) {
    this.count = count;
    this.log = log;
    this.onFatal = onFatal;
  }

  async start() {
    if (!fs.existsSync(mediasoup.workerBin)) {
      throw new Error(`${mediasoup.workerBin} is missing; run "node build-worker.mjs" in server/`);
    }
    for (let i = 0; i < this.count; i += 1) await this.#spawn();
  }

  async #spawn() {
    const worker = await mediasoup.createWorker({ logLevel: 'error', disableLiburing: true });
    if (this.#closed) return this.#end(worker);
    worker.on('died', (error) => this.#died(worker, error));
    this.#workers.push(worker);
  }

  #died(worker, error) {
    this.log.error('a media worker died; its meetings end', {
      pid: worker.pid,
      error: error.message,
    });
    this.#workers.splice(this.#workers.indexOf(worker), 1);
    const now = Date.now();
    this.#deaths = [...this.#deaths.filter((at) => now - at < DEATHS.withinMs), now];
    if (this.#deaths.length >= DEATHS.most)
      return this.onFatal(new Error('media workers keep dying'));
    this.#spawn().catch(this.onFatal);
  }

  /** The worker for the next meeting, in turn. */
  next() {
    if (this.#workers.length === 0) throw new Error('no media worker is running');
    this.#next = (this.#next + 1) % this.#workers.length;
    return this.#workers[this.#next];
  }

  pids() {
    return this.#workers.map((worker) => worker.pid);
  }

  async #end(worker) {
    if (worker.subprocessClosed) return;
    const gone = new Promise((resolve) => worker.on('subprocessclose', () => resolve(true)));
    worker.close();
    if (await Promise.race([gone, delay(KILL_AFTER_MS, false, { ref: false })])) return;
    process.kill(worker.pid, 'SIGKILL');
    await gone;
  }

  async close() {
    this.#closed = true;
    await Promise.all(this.#workers.map((worker) => this.#end(worker)));
  }
}
