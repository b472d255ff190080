/**
 * Faults that a test ordered. A rule matches by the keys it names and goes after `count` uses, or
 * when `ms` have passed.
 */
export class Faults {
  #rules = [];
  #unsupportedCodecs = new Map();

  add(kind, match, effect, { count = 1, ms = Infinity } = {}) {
    this.#rules.push({ kind, match, effect, left: count, until: Date.now() + ms });
  }

  /** The effect of the first rule of `kind` that fits, or undefined; uses it up by one. */
  take(kind, event) {
    if (this.#rules.length === 0) return undefined;
    this.#rules = this.#rules.filter(({ until }) => until > Date.now());
    const index = this.#rules.findIndex(
      (rule) =>
        rule.kind === kind &&
        Object.entries(rule.match).every(
          ([key, value]) => value === undefined || event[key] === value,
        ),
    );
    if (index < 0) return undefined;
    const rule = this.#rules[index];
    rule.left -= 1;
    if (rule.left <= 0) this.#rules.splice(index, 1);
    return rule.effect;
  }

  setUnsupportedCodecs(roomId, codecs) {
    if (codecs) this.#unsupportedCodecs.set(roomId, codecs);
    else this.#unsupportedCodecs.delete(roomId);
  }

  unsupportedCodecs(roomId) {
    return this.#unsupportedCodecs.get(roomId);
  }

  clear() {
    this.#rules = [];
    this.#unsupportedCodecs.clear();
  }
}
