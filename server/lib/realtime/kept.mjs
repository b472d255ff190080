/** The newest messages of a topic, within a count and a number of bytes; the oldest go. */
export class Kept {
  #entries = [];
  #first = 0;
  #bytes = 0;

  constructor({ most, mostBytes }) {
    Object.assign(this, { most, mostBytes });
  }

  get size() {
    return this.#entries.length - this.#first;
  }

  get bytes() {
    return this.#bytes;
  }

  add(entry) {
    this.#entries.push(entry);
    this.#bytes += entry.bytes.length;
    while (this.size > this.most || (this.#bytes > this.mostBytes && this.size > 1)) this.shift();
  }

  /** Takes the oldest out. */
  shift() {
    const entry = this.#entries[this.#first];
    this.#entries[this.#first] = undefined;
    this.#first += 1;
    this.#bytes -= entry.bytes.length;
    // Moved to the front only once in a while, so that one in, one out stays cheap.
    if (this.#first > 1000 && this.#first > this.#entries.length / 2) {
      this.#entries = this.#entries.slice(this.#first);
      this.#first = 0;
    }
    return entry;
  }

  list() {
    return this.#entries.slice(this.#first);
  }

  clear() {
    this.#entries = [];
    this.#first = 0;
    this.#bytes = 0;
  }
}
