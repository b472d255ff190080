const dumpGuest = ({ id, original, media }) => ({
  id,
  of: original.id,
  producers: [...media.producers.keys()],
});

const dumpSent = ({ to, state, kinds, asker, guests }) => ({
  meetingId: to.id,
  state,
  kinds: [...kinds],
  askedBy: asker.id,
  guests: [...guests.values()].map(dumpGuest),
});

/** What goes from this meeting to others, and what comes from others. */
export const dumpRelays = ({ sent, received }) => ({
  sent: [...sent.values()].map(dumpSent),
  received: [...received.values()].map(({ from, state }) => ({ meetingId: from.id, state })),
});
