import { createHmac, timingSafeEqual } from 'node:crypto';
import { isId, isObject } from './read.mjs';
import { Refusal } from './refusal.mjs';

export const PERMISSIONS = ['allow_join', 'ask_join', 'allow_mod'];
export const API_KEY = 'local';
const LONGEST_TOKEN = 8192;
// Who a token for reports is for; one for meetings names nobody.
const REPORTS = 'observability';
// A client gets one when it joins, and no other while it stays.
const REPORTS_SECONDS = 12 * 3600;

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
  // As texts: the same bytes can be written in more ways than one.
  const wanted = Buffer.from(hmac(secret, `${parts[0]}.${parts[1]}`).toString('base64url'));
  const given = Buffer.from(parts[2]);
  const genuine = given.length === wanted.length && timingSafeEqual(given, wanted);
  if (!genuine || decode(parts[0])?.alg !== 'HS256') throw new Refusal('token');
  const claims = decode(parts[1]);
  if (!claims) throw new Refusal('token');
  return claims;
}

const isCurrent = ({ exp }) => Number.isFinite(exp) && exp * 1000 > Date.now();

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
  if (!isCurrent(claims)) throw new Refusal('token');
  if (claims.aud === REPORTS) throw new Refusal('token');
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

/** A token with which whoever is in `roomId` reports logs and traces. */
export function signReportToken(secret, roomId) {
  const iat = Math.floor(Date.now() / 1000);
  return signToken(secret, { aud: REPORTS, roomId, iat, exp: iat + REPORTS_SECONDS });
}

/** The meeting of a token for reports, if it is one, and whether it is `good` or has expired. */
export function readReportToken(secret, token) {
  try {
    const claims = verify(secret, token);
    if (claims.aud !== REPORTS || !isId(claims.roomId)) return { good: false };
    return { roomId: claims.roomId, good: isCurrent(claims) };
  } catch {
    return { good: false };
  }
}
