import { promisify } from 'node:util';
import { gunzip } from 'node:zlib';
import { HttpError } from '../http.mjs';
import { isId, isObject } from '../read.mjs';
import { emptyResponse, spansOf } from './otlp.mjs';

const MIB = 1024 * 1024;
const LARGEST_LOG = MIB;
const DEEPEST_LOG = 100;
// Encoded, and again once unpacked.
const LARGEST_EXPORT = 16 * MIB;
const PROTOBUF = 'application/x-protobuf';
const inflate = promisify(gunzip);
const utf8 = new TextDecoder('utf-8', { fatal: true });

const isDeeper = (value, levels) =>
  typeof value === 'object' &&
  value !== null &&
  (levels === 0 || Object.values(value).some((inner) => isDeeper(inner, levels - 1)));

function readLog(bytes) {
  let log;
  try {
    log = JSON.parse(utf8.decode(bytes));
  } catch {
    throw new HttpError(400, 'the body is not JSON');
  }
  if (!isObject(log)) throw new HttpError(400, 'the body must be an object');
  // The parser takes any depth, but what writes it again doesn't.
  if (isDeeper(log, DEEPEST_LOG)) throw new HttpError(400, 'the body is nested too deeply');
  const roomId = log.attributes?.roomId;
  return { items: [log], roomId: isId(roomId) ? roomId : undefined };
}

const mediaType = (header = '') => header.split(';', 1)[0].trim().toLowerCase();

function checkExport({ headers }) {
  if (mediaType(headers['content-type']) !== PROTOBUF)
    throw new HttpError(415, `the content type must be ${PROTOBUF}`);
  if (!['', 'identity', 'gzip'].includes(mediaType(headers['content-encoding'])))
    throw new HttpError(415, 'the content encoding must be gzip, or none');
}

async function unpack(bytes) {
  try {
    return await inflate(bytes, { maxOutputLength: LARGEST_EXPORT });
  } catch (error) {
    if (error.code === 'ERR_BUFFER_TOO_LARGE')
      throw new HttpError(413, `a body has at most ${LARGEST_EXPORT} bytes when unpacked`);
    throw new HttpError(400, 'the body is not gzip');
  }
}

async function readExport(bytes, { headers }) {
  const gzip = mediaType(headers['content-encoding']) === 'gzip';
  const encoded = gzip ? await unpack(bytes) : bytes;
  try {
    return { items: spansOf(encoded) };
  } catch {
    throw new HttpError(400, 'the body is not an export request');
  }
}

/** The lines that clients log, one a request. */
export const LOGS = {
  name: 'logs',
  largest: LARGEST_LOG,
  most: 2000,
  check: () => {},
  read: readLog,
  success: () => ['{}'],
};

/** The spans of their traces, in batches, as the OpenTelemetry protocol has them over HTTP. */
export const TRACES = {
  name: 'traces',
  largest: LARGEST_EXPORT,
  most: 20_000,
  check: checkExport,
  read: readExport,
  success: () => [emptyResponse(), PROTOBUF],
};
