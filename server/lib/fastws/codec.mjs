import * as path from 'node:path';
import protobuf from 'protobufjs';

const root = protobuf.loadSync(path.join(import.meta.dirname, 'fastws.proto'));
const type = (name) => root.lookupType(`fastws.${name}`);
const ClientMessage = type('FastwsClientMessage');
const ServerEnvelope = type('FastwsServerEnvelope');
const ServerMessage = type('FastwsServerMessage');

/** The frame's kind and its body; throws when it is none. */
export function decodeClient(bytes) {
  const message = ClientMessage.decode(bytes);
  const { kind } = message;
  if (kind === undefined) throw new Error('the frame holds no message');
  return { kind, body: message[kind] };
}

/** `{ batch | ack | welcome | ping: … }` as a frame. The fields are not checked. */
export const encodeServer = (envelope) => ServerEnvelope.encode(envelope).finish();

/** An entry of a batch. */
export const encodeMessage = (message) => ServerMessage.encode(message).finish();
export const decodeMessage = (bytes) => ServerMessage.decode(bytes);

function check(type, value, path) {
  const wrong = type.verify(value);
  if (wrong) throw new Error(`${path}: ${wrong}`);
  for (const key of Object.keys(value)) {
    if (!type.fields[key]) throw new Error(`${path} has no field "${key}"`);
    const { resolvedType } = type.fields[key].resolve();
    if (resolvedType) check(resolvedType, value[key], `${path}.${key}`);
  }
}

const checkedBytes = (type, value, path) => {
  check(type, value, path);
  return type.encode(type.fromObject(value)).finish();
};

/**
 * A frame from JSON, whose bytes are base64. An entry of a batch's payloads may also be an object,
 * a message. Throws what is wrong with it.
 */
export function envelopeFrom(json) {
  const { batch } = json;
  if (!Array.isArray(batch?.payloads)) return checkedBytes(ServerEnvelope, json, 'envelope');
  const payloads = batch.payloads.map((entry) =>
    typeof entry === 'string'
      ? Buffer.from(entry, 'base64')
      : checkedBytes(ServerMessage, entry, 'payload'),
  );
  return checkedBytes(ServerEnvelope, { ...json, batch: { ...batch, payloads } }, 'envelope');
}
