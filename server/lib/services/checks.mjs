import { isObject } from '../read.mjs';
import { RequestError } from '../refusal.mjs';

const LONGEST_TEXT = 4096;
const LONGEST_PROMPT = 16384;
const LARGEST_GRID = 1000;
const MOST_OUTPUTS = 10;
const INVALID_OUTPUTS = 4015;

// A check takes a value and the name of its place. It gives what may be kept and shown of
// the value: unknown keys and what is secret are left out.
function wrong(place, wanted, code = 400) {
  throw new RequestError(code, `"${place}" must be ${wanted}`);
}

const text =
  (longest = LONGEST_TEXT) =>
  (value, place) =>
    typeof value === 'string' && value.length <= longest
      ? value
      : wrong(place, `a text of at most ${longest} characters`);

const oneOf =
  (...choices) =>
  (value, place) =>
    choices.includes(value) ? value : wrong(place, `one of ${choices.join(', ')}`);

const flag = (value, place) => (typeof value === 'boolean' ? value : wrong(place, 'a Boolean'));

const whole = (value, place) =>
  Number.isInteger(value) && value >= 0 && value <= LARGEST_GRID
    ? value
    : wrong(place, `a whole number from 0 to ${LARGEST_GRID}`);

// Credentials, query and fragment are cut.
function shownUrl(value, schemes) {
  if (typeof value !== 'string' || value.length > LONGEST_TEXT) return undefined;
  if (/\s/.test(value)) return undefined;
  if (!schemes.some((scheme) => value.toLowerCase().startsWith(`${scheme}://`))) return undefined;
  const url = URL.canParse(value) ? new URL(value) : undefined;
  return url?.hostname ? `${url.protocol}//${url.host}${url.pathname}` : undefined;
}

// An empty one is none.
const webUrl = (value, place) =>
  value === '' ? value : shownUrl(value, ['http', 'https']) ?? wrong(place, 'an http or https URL');

/** An object of which each key may be there or not, but for those that are needed. */
const object =
  (checks, needed = []) =>
  (value, place) => {
    if (!isObject(value)) wrong(place, 'an object');
    const inside = (key) => (place === undefined ? key : `${place}.${key}`);
    const found = Object.keys(checks).filter((k) => value[k] !== undefined || needed.includes(k));
    return Object.fromEntries(found.map((key) => [key, checks[key](value[key], inside(key))]));
  };

function output(value, place) {
  if (!isObject(value)) wrong(place, 'an object', INVALID_OUTPUTS);
  const { url, streamKey } = value;
  const shown = shownUrl(url, ['rtmp', 'rtmps']);
  if (!shown) wrong(`${place}.url`, 'an rtmp or rtmps URL', INVALID_OUTPUTS);
  if (typeof streamKey !== 'string' || streamKey === '' || streamKey.length > LONGEST_TEXT)
    wrong(`${place}.streamKey`, 'a text that is not empty', INVALID_OUTPUTS);
  return { url: shown };
}

function outputs(value, place) {
  if (!Array.isArray(value) || value.length === 0 || value.length > MOST_OUTPUTS)
    wrong(place, `a list of 1 to ${MOST_OUTPUTS} outputs`, INVALID_OUTPUTS);
  return value.map((one, index) => output(one, `${place}[${index}]`));
}

const layout = object({
  type: oneOf('GRID', 'SPOTLIGHT', 'SIDEBAR'),
  priority: oneOf('SPEAKER', 'PIN'),
  gridSize: whole,
});
const theme = oneOf('DEFAULT', 'LIGHT', 'DARK');
const composition = object({
  layout,
  theme,
  mode: oneOf('video-and-audio', 'audio'),
  quality: oneOf('high', 'med', 'low'),
  orientation: oneOf('landscape', 'portrait'),
});
const summary = object({ enabled: flag, prompt: text(LONGEST_PROMPT) });
const transcription = object({ enabled: flag, summary });

const ASKED = {
  recording: object({ webhookUrl: webUrl, awsDirPath: text(), config: composition, transcription }),
  livestream: object(
    { outputs, config: object({ layout, theme, recording: object({ enabled: flag }) }) },
    ['outputs'],
  ),
  hls: object({ config: composition, transcription }),
  transcription: object({ config: object({ webHookUrl: webUrl, summary }) }),
  whiteboard: object({ version: oneOf('v2') }, ['version']),
};

/** What the data of a start request ask for, fit to be kept and shown, or a RequestError. */
export const askedOf = (name, data) => ASKED[name](data);
