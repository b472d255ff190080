import { randomBytes } from 'node:crypto';
import { HttpError, readJson, sendJson } from '../http.mjs';
import { isId, isObject } from '../read.mjs';
import { Refusal } from '../refusal.mjs';
import { checkAccess } from '../tokens.mjs';

export const UPLOAD_PATH = '/base64-upload';
export const FILES_PATH = '/files/';
const BASE64 = /^[A-Za-z0-9+/]*={0,2}$/;
const LONGEST_NAME = 255;
// What may stand around the data in the body.
const ENVELOPE_BYTES = 64 * 1024;

function bytesOf(text, largest) {
  if (typeof text !== 'string' || text === '' || !BASE64.test(text))
    throw new HttpError(400, '"base64Data" must be base64 on one line');
  const padded = text.endsWith('=');
  const bytes = Buffer.from(text, 'base64');
  if (padded ? text.length % 4 !== 0 : text.length % 4 === 1)
    throw new HttpError(400, '"base64Data" is cut off');
  if (bytes.length > largest) throw new HttpError(413, `a file has at most ${largest} bytes`);
  return bytes;
}

function nameOf(name) {
  if (typeof name !== 'string' || name === '' || name.length > LONGEST_NAME || !name.isWellFormed())
    throw new HttpError(400, `"fileName" must be a text of 1 to ${LONGEST_NAME} characters`);
  return name;
}

/** The files of all meetings, in memory. A meeting's go with it. */
export class Files {
  #total = 0;
  // meeting -> file id -> { name, bytes }
  #meetings = new Map();

  constructor({ rooms, secret, largest, mostBytes, address }) {
    Object.assign(this, { rooms, secret, largest, mostBytes, address });
  }

  #room(request, roomId) {
    checkAccess(this.secret, request.headers.authorization, { roomId });
    const room = this.rooms.find(roomId);
    if (!room) throw new HttpError(404, 'no such meeting');
    return room;
  }

  /** POST /base64-upload?roomId=…: keeps a file and tells where it is. */
  async upload(request, response) {
    const query = new URLSearchParams(request.url.split('?')[1]);
    const roomId = query.get('roomId');
    const most = Math.ceil(this.largest / 3) * 4 + ENVELOPE_BYTES;
    const drain = 4 * most;
    try {
      this.#room(request, roomId);
    } catch (error) {
      await readJson(request, { largest: 0, drain }).catch(() => {});
      throw error;
    }
    const body = await readJson(request, { largest: most, drain });
    if (!isObject(body)) throw new HttpError(400, 'the body must be an object');
    const file = { name: nameOf(body.fileName), bytes: bytesOf(body.base64Data, this.largest) };
    const url = this.#keep(this.#room(request, roomId), file);
    sendJson(response, 200, { url });
  }

  #keep(room, file) {
    if (this.#total + file.bytes.length > this.mostBytes)
      throw new HttpError(413, 'there is no room for more files');
    if (!this.#meetings.has(room.id)) this.#meetings.set(room.id, new Map());
    const id = randomBytes(16).toString('base64url');
    this.#meetings.get(room.id).set(id, file);
    this.#total += file.bytes.length;
    return `https://${this.address()}${FILES_PATH}${encodeURIComponent(room.id)}/${id}`;
  }

  /** GET /files/<meeting>/<file>: the bytes as they were. */
  async fetch(request, response, rest) {
    const [meeting, id] = rest.split('/');
    const roomId = this.#decode(meeting);
    checkAccess(this.secret, request.headers.authorization, { roomId });
    const file = this.#meetings.get(roomId)?.get(id);
    if (!file) throw new HttpError(404, 'no such file');
    response.writeHead(200, {
      'content-type': 'application/octet-stream',
      'content-length': file.bytes.length,
      'content-disposition': `attachment; filename*=UTF-8''${encodeURIComponent(file.name)}`,
      'cache-control': 'no-store',
    });
    response.end(file.bytes);
  }

  #decode(part) {
    try {
      const roomId = decodeURIComponent(part);
      if (isId(roomId)) return roomId;
    } catch {
      // Told below.
    }
    throw new Refusal('meetingId');
  }

  forget(room) {
    for (const { bytes } of this.#meetings.get(room.id)?.values() ?? [])
      this.#total -= bytes.length;
    this.#meetings.delete(room.id);
  }

  dump(room) {
    const files = [...(this.#meetings.get(room.id)?.values() ?? [])];
    return files.map(({ name, bytes }) => ({ name, bytes: bytes.length }));
  }
}
