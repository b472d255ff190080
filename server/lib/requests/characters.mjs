import { randomUUID } from 'node:crypto';
import * as read from '../read.mjs';

const MODES = ['text', 'coPilot', 'autoPilot', 'visionPilot'];
const MOST_TEXTS = 100;

const isThere = (data, key) => data[key] !== undefined && data[key] !== null;
const textOr = (data, key, fallback) => (isThere(data, key) ? read.text(data, key) : fallback);
const textsOf = (data, key) => (isThere(data, key) ? read.texts(data, key, MOST_TEXTS) : []);

/** What makes a character, from a request. */
export function characterFrom(data) {
  const id = read.id(data, 'characterId');
  return {
    id,
    displayName: textOr(data, 'displayName', `Character ${id}`),
    interactionId: textOr(data, 'interactionId', randomUUID()),
    characterMode: isThere(data, 'characterMode')
      ? read.oneOf(data, 'characterMode', MODES)
      : 'autoPilot',
    characterRole: textOr(data, 'characterRole', undefined),
    knowledgeBases: textsOf(data, 'knowledgeBases'),
    metaData: textsOf(data, 'metaData'),
  };
}

async function joinCharacter({ room, peer, data, faults, after }) {
  const { characters } = room;
  const config = characterFrom(data);
  const who = { roomId: room.id, peerId: peer.id };
  const character = await characters.add(config);
  if (faults.take('announceCharacterFirst', who)) {
    characters.announce(character);
    peer.outbox?.flush();
  }
  after(() => {
    characters.announce(character);
    return characters.offer(character);
  });
  return character.answer();
}

const named = ({ room, data }) => room.characters.get(read.id(data, 'characterId'));

function leaveCharacter(context) {
  const { room, after } = context;
  const character = named(context);
  after(() => room.characters.remove(character));
}

function sendCharacterMessage(context) {
  const { peer, data, after } = context;
  const text = read.text(data, 'text');
  const character = named(context);
  after(() => character.hear(text, peer));
}

// The sound ends before the answer.
function interruptCharacter(context) {
  const character = named(context);
  if (character.silence()) context.after(() => character.announceStatus());
}

const joined = (run) => ({ needs: 'join', run });

export const characterRequests = {
  joinCharacter: joined(joinCharacter),
  leaveCharacter: joined(leaveCharacter),
  sendCharacterMessage: joined(sendCharacterMessage),
  interruptCharacter: joined(interruptCharacter),
};
