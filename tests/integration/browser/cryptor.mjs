// Runs in a worker of the page. An implementation of docs/encryption.md of its own, on WebCrypto.
const utf8 = (text) => new TextEncoder().encode(text);
const SALT = utf8('TidalMarrowHarborLanternQuail');
const MARK = utf8('Ember-Walnut-Orchid-Gable');
const RING = 16;
const TAG = 16;
const NONCE = 12;
const TRAILER = NONCE + 2;
const SLICE_CLEAR = 5;

async function derive(material) {
  const password = await crypto.subtle.importKey('raw', material, 'PBKDF2', false, ['deriveBits']);
  const stretching = { name: 'PBKDF2', hash: 'SHA-256', salt: SALT, iterations: 100_000 };
  const stretched = await crypto.subtle.deriveBits(stretching, password, 256);
  const base = await crypto.subtle.importKey('raw', stretched, 'HKDF', false, ['deriveBits']);
  const expand = (info, bits) =>
    crypto.subtle.deriveBits({ name: 'HKDF', hash: 'SHA-256', salt: SALT, info: utf8(info) }, base, bits);
  const frameKey = await expand('frame key', 128);
  return {
    key: await crypto.subtle.importKey('raw', frameKey, 'AES-GCM', false, ['encrypt', 'decrypt']),
    next: new Uint8Array(await expand('ratchet', 256)),
  };
}

function firstSlice(frame) {
  for (let at = 3; at < frame.length; at += 1) {
    const type = frame[at] & 31;
    if (!frame[at - 3] && !frame[at - 2] && frame[at - 1] === 1 && type >= 1 && type <= 5) return at;
  }
  throw new Error('no slice');
}

/** Where the clear part ends, and where its authenticated part begins. */
function clearPart(codec, frame) {
  const [from, size] = {
    opus: () => [0, 1],
    vp8: () => [0, frame[0] & 1 ? 3 : 10],
    vp9: () => [0, 0],
    h264: () => [firstSlice(frame), firstSlice(frame) + SLICE_CLEAR],
  }[codec]();
  if (size > frame.length) throw new Error('too short');
  return [from, size];
}

const concat = (...parts) => {
  const all = new Uint8Array(parts.reduce((sum, { length }) => sum + length, 0));
  parts.reduce((at, part) => (all.set(part, at), at + part.length), 0);
  return all;
};

/** Calls `visit` with each byte of `body` and how many zeros precede it; that gives what follows. */
function walk(before, body, visit) {
  const out = [];
  let zeros = 0;
  for (const byte of before) zeros = byte === 0 ? zeros + 1 : 0;
  for (const byte of body) zeros = visit(out, byte, zeros);
  return Uint8Array.from(out);
}

const escape = (before, body) =>
  walk(before, body, (out, byte, zeros) => {
    const put = zeros >= 2 && byte <= 3;
    if (put) out.push(3);
    out.push(byte);
    return byte === 0 ? (put ? 1 : zeros + 1) : 0;
  });

const unescape = (before, body) =>
  walk(before, body, (out, byte, zeros) => {
    if (zeros >= 2 && byte === 3) return 0;
    out.push(byte);
    return byte === 0 ? zeros + 1 : 0;
  });

let current; // {key, next}, at index 0
let tampering = 0; // one frame in so many
let counts = {};

const count = (name) => (counts[name] = (counts[name] ?? 0) + 1);

function gcm(nonce, additionalData) {
  const algorithm = { name: 'AES-GCM', iv: nonce, tagLength: TAG * 8 };
  return additionalData.length ? { ...algorithm, additionalData } : algorithm;
}

function makeEncrypt(codec) {
  const nonce = crypto.getRandomValues(new Uint8Array(NONCE));
  const counter = new DataView(nonce.buffer);
  let frames = 0;
  return async (frame) => {
    if (frame.length === 0 || !current) return current ? frame : undefined;
    const [from, size] = clearPart(codec, frame);
    const authenticated = frame.subarray(from, size);
    counter.setUint32(NONCE - 4, (frames += 1));
    const trailer = concat(nonce, [0, TRAILER]);
    const sealed = await crypto.subtle.encrypt(
      gcm(nonce.slice(), authenticated), current.key, frame.subarray(size));
    const body = concat(new Uint8Array(sealed), trailer);
    if (tampering && frames % tampering === 0) body[0] ^= 1;
    return concat(frame.subarray(0, size), codec === 'h264' ? escape(authenticated, body) : body);
  };
}

function makeDecrypt(codec) {
  return async (frame) => {
    if (frame.length === 0) return frame;
    if (MARK.every((byte, at) => frame[at] === byte)) return frame.subarray(MARK.length);
    const [from, size] = clearPart(codec, frame);
    const authenticated = frame.subarray(from, size);
    let body = frame.subarray(size);
    if (codec === 'h264') body = unescape(authenticated, body);
    const index = body.at(-2);
    if (body.length < TAG + TRAILER || body.at(-1) !== TRAILER || index >= RING) throw new Error('no trailer');
    if (index !== 0 || !current) throw new Error('no key');
    const nonce = body.slice(-TRAILER, -2);
    const opened = await crypto.subtle.decrypt(
      gcm(nonce, authenticated), current.key, body.subarray(0, -TRAILER));
    return concat(frame.subarray(0, size), new Uint8Array(opened));
  };
}

globalThis.onrtctransform = ({ transformer: { readable, writable, options } }) => {
  const { side, codec } = options;
  const change = side === 'send' ? makeEncrypt(codec) : makeDecrypt(codec);
  const transform = new TransformStream({
    async transform(frame, controller) {
      try {
        const changed = await change(new Uint8Array(frame.data));
        if (!changed) return;
        frame.data = changed.buffer.slice(changed.byteOffset, changed.byteOffset + changed.length);
        controller.enqueue(frame);
        count(`${codec} ${side} good`);
      } catch {
        count(`${codec} ${side} failed`);
      }
    },
  });
  readable.pipeThrough(transform).pipeTo(writable);
};

const orders = {
  async setKey(key) {
    current = await derive(utf8(key.trim()));
  },
  async ratchet() {
    current = await derive(current.next);
  },
  tamper(oneIn) {
    tampering = oneIn;
  },
  counts: () => counts,
  forget() {
    counts = {};
  },
};

globalThis.onmessage = async ({ data: { number, order, argument } }) => {
  postMessage({ number, result: await orders[order](argument) });
};
