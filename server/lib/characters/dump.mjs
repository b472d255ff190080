export const dumpCharacter = (character) => ({
  ...character.describe(),
  announced: character.announced,
  status: character.status,
  hz: character.hz,
  thinkMs: character.thinkMs,
  producerId: character.voice?.producer.id ?? null,
  packetsSent: character.voice?.packets.sent ?? 0,
});
