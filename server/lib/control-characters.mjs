import { checkMs, fault } from './control-parts.mjs';
import { HttpError } from './http.mjs';
import { characterFrom } from './requests/characters.mjs';
import * as read from './read.mjs';

const [LOWEST, HIGHEST] = [50, 4000];

function pitchOf({ hz }) {
  if (hz === undefined) return undefined;
  if (!Number.isInteger(hz) || hz < LOWEST || hz > HIGHEST)
    throw new HttpError(400, `"hz" must be a whole number from ${LOWEST} to ${HIGHEST}`);
  return hz;
}

const named = (room, body) => room.characters.get(read.id(body, 'characterId'));

async function addCharacter(service, body, { room }) {
  const { characters } = room();
  const hz = pitchOf(body);
  const character = await characters.add(characterFrom(body), hz);
  characters.announce(character);
  await characters.offer(character);
  return { hz: character.hz };
}

async function setCharacter(service, body, { room }) {
  const character = named(room(), body);
  const { thinkMs, speakMs } = body;
  const hz = pitchOf(body);
  for (const [key, ms] of Object.entries({ thinkMs, speakMs })) {
    if (ms === undefined) continue;
    checkMs(ms, key);
    character[key] = ms;
  }
  if (hz !== undefined) await character.tune(hz);
}

export const characterActions = {
  addCharacter,
  setCharacter,
  removeCharacter(service, body, { room }) {
    const here = room();
    here.characters.remove(named(here, body));
  },
  speak(service, body, { room }) {
    const character = named(room(), body);
    checkMs(body.ms, 'ms');
    if (!character.voice) throw new HttpError(409, 'the character has no voice');
    character.speak(body.ms);
  },
  // Any text, for any id: also what a meeting without this character, or a later service, sends.
  characterState(service, { characterId: id, status }, { room }) {
    room().broadcast('characterStateChanged', { id, status });
  },
  characterMessage(service, body, { room }) {
    const { characterId, text, participantId = characterId, participantName = '' } = body;
    const { timestamp = new Date().toISOString() } = body;
    const message = { characterId, text, participantId, participantName, timestamp };
    room().broadcast('characterMessage', message);
  },
  announceCharacterFirst: fault('announceCharacterFirst'),
};
