import { createHmac, timingSafeEqual } from 'node:crypto';
import { isId, isObject } from './read.mjs';
import { Refusal } from './refusal.mjs';

export const PERMISSIONS = ['allow_join', 'ask_join', 'allow_mod'];
export const API_KEY = 'local';
const LONGEST_TOKEN = 8192;

const encode = (value) => Buffer.from(JSON.stringify(value)).toString('base64url');
const hmac = (secret, text) => createHmac('sha256', secret).update(text).digest();

/** A compact HS256 JSON Web Token (RFC 7519) over `claims`. */
export function signToken(secret, claims) {
  const body = `${encode({ alg: 'HS256', typ: 'JWT' })}.${encode(claims)}`;
  return `${body}.${hmac(secret, body).toString('base64url')}`;
}

function decode(part) {
  try {
    const value = JSON.parse(Buffer.from(part, 'base64url').toString('utf8'));
    return isObject(value) ? value : undefined;
  } catch {
    return undefined;
  }
}

function verify(secret, token) {
  if (typeof token !== 'string' || token.length > LONGEST_TOKEN) throw new Refusal('token');
  const parts = token.split('.');
  if (parts.length !== 3) throw new Refusal('token');
  const wanted = hmac(secret, `${parts[0]}.${parts[1]}`);
  const given = Buffer.from(parts[2], 'base64url');
  const genuine = given.length === wanted.length && timingSafeEqual(given, wanted);
  if (!genuine || decode(parts[0])?.alg !== 'HS256') throw new Refusal('token');
  const claims = decode(parts[1]);
  if (!claims) throw new Refusal('token');
  return claims;
}

function checkPermissions(list) {
  const known =
    Array.isArray(list) && list.length > 0 && list.every((p) => PERMISSIONS.includes(p));
  if (!known) throw new Refusal('permissions');
  if (list.includes('ask_join') && list.length > 1) {
    throw new Refusal('permissions', 'ask_join cannot stand beside other permissions');
  }
}

/**
 * The claims of a token that opens `roomId` to `peerId`, or a Refusal. `peerId` is left out where
 * the caller doesn't know it yet.
 */
export function checkAccess(secret, token, { roomId, peerId }) {
  const claims = verify(secret, token);
  if (!(Number.isFinite(claims.exp) && claims.exp * 1000 > Date.now())) throw new Refusal('token');
  if (claims.apikey !== API_KEY) throw new Refusal('apiKey');
  checkPermissions(claims.permissions);
  if (!isId(roomId)) throw new Refusal('meetingId');
  if (claims.roomId !== undefined && claims.roomId !== roomId) throw new Refusal('otherMeeting');
  if (peerId === undefined) return claims;
  if (!isId(peerId)) throw new Refusal('participantId');
  if (claims.participantId !== undefined && claims.participantId !== peerId) {
    throw new Refusal('otherParticipant');
  }
  return claims;
}
