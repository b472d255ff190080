export function dumpTopic({ name, sequence, stored, channels, peers }) {
  return {
    topic: name,
    sequence,
    stored: stored.size,
    storedBytes: stored.bytes,
    subscribers: [...channels].map(({ connection }) => connection.peerId),
    signalled: [...peers].map(({ id }) => id),
  };
}

const dumpChannel = (channel) => ({
  topic: channel.topic.name,
  requestIds: channel.subscriptions().map(({ requestId }) => requestId),
  waiting: channel.waiting,
  dropped: channel.dropped,
});

export function dumpConnection({ peerId, flow, operations, unanswered }) {
  return {
    peerId,
    framesSent: flow.sent,
    unsentBytes: flow.socket.bufferedAmount,
    slow: flow.slow,
    silent: flow.silent ?? null,
    replays: flow.replays,
    unansweredPings: unanswered,
    topics: operations.channels().map(dumpChannel),
  };
}
