import { RequestError } from './refusal.mjs';

export const MODES = ['CONFERENCE', 'VIEWER', 'SEND_AND_RECV', 'SIGNALLING_ONLY', 'RECV_ONLY'];
export const SENDING = ['CONFERENCE', 'SEND_AND_RECV'];
export const RECEIVING = [...SENDING, 'RECV_ONLY'];
const LONGEST_TEXT = 4096;
const ID = /^[^\s\p{Cc}/?#]{1,128}$/u;

export const isObject = (value) =>
  typeof value === 'object' && value !== null && !Array.isArray(value);
export const isId = (value) => typeof value === 'string' && ID.test(value);

const wrong = (key, wanted) => new RequestError(400, `"${key}" must be ${wanted}`);

/** Readers of a request's data: the value under `key`, or a RequestError that names the fault. */
export function text(data, key, longest = LONGEST_TEXT) {
  const value = data[key];
  if (typeof value !== 'string' || value.length > longest) {
    throw wrong(key, longest < Infinity ? `a text of at most ${longest} characters` : 'a text');
  }
  return value;
}

/** A list of texts. */
export function texts(data, key, most) {
  const list = data[key];
  const fits = (one) => typeof one === 'string' && one.length <= LONGEST_TEXT;
  if (!Array.isArray(list) || list.length > most || !list.every(fits))
    throw wrong(key, `a list of at most ${most} texts`);
  return list;
}

export function id(data, key) {
  if (!isId(data[key])) throw wrong(key, 'an id');
  return data[key];
}

export function object(data, key) {
  if (!isObject(data[key])) throw wrong(key, 'an object');
  return data[key];
}

export function flag(data, key) {
  if (typeof data[key] !== 'boolean') throw wrong(key, 'a Boolean');
  return data[key];
}

export function integer(data, key, max) {
  const value = data[key];
  if (!Number.isInteger(value) || value < 0 || value > max) {
    throw wrong(key, `a whole number from 0 to ${max}`);
  }
  return value;
}

export function oneOf(data, key, choices) {
  if (!choices.includes(data[key])) throw wrong(key, `one of ${choices.join(', ')}`);
  return data[key];
}
