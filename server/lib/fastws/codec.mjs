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
