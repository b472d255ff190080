const WAYS = {
  terminate: (socket) => socket.conn.transport.socket.terminate(),
  close: (socket) => socket.conn.close(true),
  disconnect: (socket) => socket.disconnect(true),
};
export const DROPS = Object.keys(WAYS);

/** Ends the connection of `peer`, which is refused when it returns before `downMs` have passed. */
export function drop(peer, { how = 'terminate', downMs = 0 }, faults) {
  const who = { roomId: peer.room.id, peerId: peer.id };
  if (downMs > 0) faults.add('refuseConnections', who, {}, { count: Infinity, ms: downMs });
  WAYS[how](peer.socket);
}
