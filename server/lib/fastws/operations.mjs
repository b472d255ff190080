import { RequestError } from '../refusal.mjs';
import { Channel, subscription } from './channel.mjs';
import { replayFrames } from './frames.mjs';

export const OPERATIONS = ['subscribe', 'unsubscribe', 'publish', 'getHistory'];
const MOST_SUBSCRIPTIONS = 10_000;
const MOST_HISTORY = 100;

/** What a participant asks for on one connection; each request is acknowledged. */
export class Operations {
  #channels = new Map();
  #timers = new Set();
  #count = 0;

  constructor(connection) {
    const { peer, room, faults, flow } = connection;
    Object.assign(this, { connection, peer, room, faults, flow, peerId: peer.id });
  }

  channels() {
    return [...this.#channels.values()];
  }

  run(op, body) {
    const event = { roomId: this.room.id, peerId: this.peerId, op, topic: body.topic };
    const refused = this.faults.take('refusePubSub', event);
    let outcome = { ok: true };
    let after;
    try {
      if (refused) throw new RequestError(403, refused.error ?? 'refused by the control endpoint');
      ({ after, ...outcome } = { ...outcome, ...this[op](body) });
    } catch (error) {
      if (!(error instanceof RequestError)) throw error;
      outcome = { ok: false, error: error.message };
    }
    this.#acknowledge(event, { requestId: body.requestId, ...outcome });
    after?.();
  }

  #acknowledge(event, ack) {
    if (this.faults.take('swallowPubSubAck', event)) return;
    const slow = this.faults.take('delayPubSubAck', event);
    if (slow) this.#later(slow.ms, () => this.connection.send({ ack }));
    else this.connection.send({ ack });
  }

  #later(ms, fn) {
    const timer = setTimeout(() => {
      this.#timers.delete(timer);
      fn();
    }, ms);
    this.#timers.add(timer);
  }

  #own(id, key) {
    if (id !== this.peerId)
      throw new RequestError(403, `"${key}" must be the participant whose connection this is`);
  }

  subscribe(body) {
    const { topic: name, requestId } = body;
    this.#own(body.peerId, 'peerId');
    const wanted = subscription(body);
    const topic = this.room.topics.open(name);
    let channel = this.#channels.get(name);
    const known = channel?.has(requestId);
    if (!known && this.#count >= MOST_SUBSCRIPTIONS)
      throw new RequestError(429, `a connection has at most ${MOST_SUBSCRIPTIONS} subscriptions`);
    if (!known) this.#count += 1;
    if (!channel) {
      channel = new Channel(topic, this.connection);
      this.#channels.set(name, channel);
    }
    channel.add(wanted);
    this.flow.cancel((replay) => replay.requestId === requestId && replay.topic === name);
    if (wanted.oldMessageLimit === 0) return {};
    // What an earlier subscription still has to get goes first: from here on the replay has it.
    topic.flush();
    const history = topic.history(this.peerId, wanted.oldMessageLimit);
    return { after: () => this.#replay(topic, requestId, history) };
  }

  #replay(topic, requestId, history) {
    const { name } = topic;
    const replay = { requestId, topic: name, frames: replayFrames(name, requestId, history) };
    const event = { roomId: this.room.id, peerId: this.peerId, topic: name };
    const hold = this.faults.take('holdReplay', event);
    replay.held = Boolean(hold);
    if (hold?.ms !== undefined) {
      this.#later(hold.ms, () => {
        replay.held = false;
        this.flow.pump();
      });
    }
    this.flow.replay(replay);
  }

  // The client has one table of listeners and says only once that a topic has none any more.
  unsubscribe({ topic: name }) {
    const channel = this.#channels.get(name);
    this.room.topics.find(name)?.peers.delete(this.peer);
    if (!channel) return {};
    this.#count -= channel.subscriptions().length;
    this.#channels.delete(name);
    this.flow.cancel(({ topic }) => topic === name);
    this.flow.forget(channel);
    channel.close();
    return {};
  }

  publish(body) {
    this.#own(body.senderId, 'senderId');
    const { topic, requestId, ...message } = body;
    const { messageId } = this.room.topics.open(topic).publish(message);
    return { messageId };
  }

  getHistory({ topic: name, persistMsgId, batchSize, requestId }) {
    const topic = this.room.topics.find(name);
    if (!topic) throw new RequestError(404, 'no such topic');
    if (!/^\d{0,15}$/.test(persistMsgId))
      throw new RequestError(400, '"persistMsgId" must be empty or the id of a stored message');
    const newer = topic.history(this.peerId, -1).filter((e) => e.persisted > Number(persistMsgId));
    const most = Math.min(batchSize || MOST_HISTORY, MOST_HISTORY);
    const entries = newer.slice(0, most);
    const more = newer.length > entries.length;
    const frames = replayFrames(name, requestId, entries, { more });
    return { after: () => this.flow.replay({ requestId, topic: name, frames }) };
  }

  /** Ends all subscriptions. */
  close() {
    for (const timer of this.#timers) clearTimeout(timer);
    for (const channel of this.#channels.values()) channel.close();
    this.#channels.clear();
  }
}
