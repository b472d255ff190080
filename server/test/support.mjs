import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as https from 'node:https';
import * as os from 'node:os';
import * as path from 'node:path';
import { text as readText } from 'node:stream/consumers';
import { setTimeout as delay } from 'node:timers/promises';
import { Device } from 'mediasoup-client';
import { FakeHandler } from 'mediasoup-client/handlers/FakeHandler';
import * as fakeParameters from 'mediasoup-client/fakeParameters';
import { io } from 'socket.io-client';
import { createLog } from '../lib/log.mjs';
import { startService } from '../lib/service.mjs';
import { signToken } from '../lib/tokens.mjs';

// For a machine whose cores are busy with something else.
const PATIENCE_MS = 30000;

/** Looks again and again, for what no event tells. */
export async function until(look) {
  const deadline = Date.now() + PATIENCE_MS;
  for (;;) {
    const found = await look();
    if (found) return found;
    assert.ok(Date.now() < deadline, `waited in vain for ${look}`);
    await delay(5);
  }
}

/** A promise like `new Promise(run)` that fails when it takes too long. */
export function within(what, run) {
  return new Promise((resolve, reject) => {
    const timer = setTimeout(() => reject(new Error(`waited in vain for ${what}`)), PATIENCE_MS);
    run((value) => {
      clearTimeout(timer);
      resolve(value);
    }, reject);
  });
}

/** The pitch of a clean tone in Hz, by the moments at which it rises through zero. */
export function pitchOf(samples, rate = 48000) {
  const rises = [];
  for (let i = 1; i < samples.length; i += 1) {
    if (samples[i - 1] < 0 && samples[i] >= 0)
      rises.push(i - samples[i] / (samples[i] - samples[i - 1]));
  }
  return ((rises.length - 1) * rate) / (rises.at(-1) - rises[0]);
}

export const temporaryFolder = () => fs.mkdtempSync(path.join(os.tmpdir(), 'kestrova-service-'));

/** POST over TLS checked against `ca`; gives the status and the parsed body. */
export async function post(ca, url, { body, headers, method = 'POST' } = {}) {
  const request = https.request(url, { method, ca, headers, agent: false });
  request.end(typeof body === 'string' ? body : JSON.stringify(body));
  const [response] = await once(request, 'response');
  const text = await readText(response);
  return { status: response.statusCode, text, body: JSON.parse(text) };
}

/** A service of its own; `close` ends it and its clients. */
export async function openService(given = {}) {
  const state = temporaryFolder();
  const lines = [];
  const log = createLog('debug', (line) => lines.push(line));
  const fatal = [];
  const service = await startService(
    { state, linger: 200, grace: 2000, ...given },
    { log, onFatal: (error) => fatal.push(error) },
  );
  const { ready } = service;
  const ca = fs.readFileSync(ready.ca);
  const secret = fs.readFileSync(ready.secretFile, 'utf8').trim();
  const key = fs.readFileSync(ready.controlKeyFile, 'utf8').trim();
  const clients = [];
  const ends = [];
  const helper = {
    onClose: (fn) => ends.push(fn),
    ready,
    ca,
    lines,
    fatal,
    state,
    token: (claims = {}) =>
      signToken(secret, {
        apikey: 'local',
        permissions: ['allow_join', 'allow_mod'],
        exp: Date.now() / 1000 + 60,
        ...claims,
      }),
    async control(action, body = {}) {
      const answer = await post(ca, `${ready.control}/${action}`, {
        body,
        headers: { authorization: key },
      });
      assert.equal(answer.status, 200, answer.text);
      return answer.body;
    },
    client(peerId, given = {}) {
      const client = new Client(helper, peerId, given);
      clients.push(client);
      return client;
    },
  };
  helper.close = async () => {
    for (const client of clients) client.socket.disconnect();
    for (const end of ends) end();
    await service.close();
    fs.rmSync(state, { recursive: true, force: true });
    assert.deepEqual(fatal, []);
  };
  return helper;
}

/** A participant as the real client behaves on the wire, with a media engine that sends nothing. */
export class Client {
  events = [];
  acknowledge = true;
  #waiters = new Set();

  constructor(
    helper,
    peerId,
    { roomId = 'room', token, mode = 'SEND_AND_RECV', query, ...options } = {},
  ) {
    Object.assign(this, { helper, peerId, roomId, mode });
    this.token = token ?? helper.token();
    this.socket = io(`https://${helper.ready.service}`, {
      path: '/meeting/socket.io',
      transports: ['websocket'],
      ca: helper.ca,
      forceNew: true,
      reconnectionDelay: 50,
      reconnectionDelayMax: 200,
      query: { roomId, peerId, secret: this.token, mode, lib: 'socket', ...query },
      ...options,
    });
    this.device = new Device({ handlerFactory: FakeHandler.createFactory(fakeParameters) });
    this.socket.on('connectionSuccess', () => this.#push('connectionSuccess'));
    this.socket.on('connect_error', (error) =>
      this.#push('connect_error', error.data ?? error.message),
    );
    this.socket.on('disconnect', (reason) => this.#push('disconnect', reason));
    this.socket.on('notification', (item, ack) => {
      ack?.({});
      this.#push(item?.method, item?.data);
    });
    this.socket.on('batchNotification', ({ notifications }, ack) => {
      ack({});
      const methods = notifications.map(({ method }) => method);
      this.#push('batch', methods);
      for (const { method, data } of notifications) this.#push(method, data);
    });
    this.socket.on('newConsumer', (item, ack) => this.#consume(item.data, ack));
    this.socket.on('statsData', (item, ack) => ack({ peerId, statsData: {} }));
  }

  #push(method, data) {
    this.events.push({ method, data });
    for (const waiter of [...this.#waiters]) waiter();
  }

  /** The next event of this name (which fits), taken out of the list. */
  next(method, fits = () => true) {
    return new Promise((resolve, reject) => {
      const late = () => {
        const got = this.events.map((e) => e.method);
        done(reject, new Error(`${this.peerId}: no ${method}; got ${got}`));
      };
      const timer = setTimeout(late, PATIENCE_MS);
      const done = (settle, value) => {
        clearTimeout(timer);
        this.#waiters.delete(look);
        settle(value);
      };
      const look = () => {
        const index = this.events.findIndex((e) => e.method === method && fits(e.data));
        if (index >= 0) done(resolve, this.events.splice(index, 1)[0].data);
      };
      this.#waiters.add(look);
      look();
    });
  }

  seen(method) {
    return this.events.filter((e) => e.method === method).map((e) => e.data);
  }

  /** The answer's data; `raw` for whatever the acknowledgement held. */
  async request(method, data = {}) {
    return (await this.raw({ method, roomId: this.roomId, request: true, data }))?.data;
  }

  raw(item) {
    return this.socket.timeout(PATIENCE_MS).emitWithAck('request', item);
  }

  async ok(method, data) {
    const answer = await this.request(method, data);
    assert.equal(answer?.status, 'ok', `${method}: ${JSON.stringify(answer)}`);
    return answer;
  }

  async enter() {
    await this.next('connectionSuccess');
    await this.ok('requestEntry', { name: this.peerId });
    return this.next('entryResponded');
  }

  async transport(direction) {
    const sends = direction === 'send';
    const details = await this.ok('createWebRtcTransport', {
      preferredProtocol: 'UDP_OVER_TCP',
      producing: sends,
      consuming: !sends,
    });
    const transport = sends
      ? this.device.createSendTransport(details)
      : this.device.createRecvTransport(details);
    const { id: transportId } = transport;
    for (const [event, request] of [
      ['connect', 'connectWebRtcTransport'],
      ['produce', 'produce'],
    ])
      transport.on(event, (data, done, failed) =>
        this.ok(request, { transportId, ...data }).then(done, failed),
      );
    this[direction] = transport;
    return transport;
  }

  /** Names another meeting from now on. */
  moveTo(roomId) {
    this.roomId = roomId;
    this.socket.io.opts.query.roomId = roomId;
  }

  joinData(more = {}) {
    return {
      displayName: this.peerId,
      device: 'test',
      secret: this.token,
      metaData: { enableAgentEvents: true },
      rtpCapabilities: this.device.loaded ? this.device.rtpCapabilities : {},
      switchingRoom: false,
      mode: this.mode,
      deviceInfo: {},
      batchingEnabled: false,
      ...more,
    };
  }

  /** Everything up to the answer to "join". */
  async join(more) {
    assert.equal((await this.enter()).decision, 'allowed');
    const routerRtpCapabilities = await this.ok('getRouterRtpCapabilities');
    if (!this.device.loaded) await this.device.load({ routerRtpCapabilities });
    if (['CONFERENCE', 'SEND_AND_RECV'].includes(this.mode)) await this.transport('send');
    if (['CONFERENCE', 'SEND_AND_RECV', 'RECV_ONLY'].includes(this.mode))
      await this.transport('receive');
    return this.ok('join', this.joinData(more));
  }

  produce(kind, options = {}) {
    return this.send.produce({ track: fakeTrack(kind), ...options });
  }

  async #consume(data, ack) {
    try {
      const { id, producerId, kind, rtpParameters, appData } = data;
      await this.receive.consume({ id, producerId, kind, rtpParameters, appData });
      if (this.acknowledge) ack(['']);
      this.#push('newConsumer', data);
    } catch (error) {
      this.#push('consumeFailed', error);
    }
  }
}

let tracks = 0;

// As much of a MediaStreamTrack as the media engine of these tests looks at.
function fakeTrack(kind) {
  tracks += 1;
  return Object.assign(new EventTarget(), {
    kind,
    id: `track-${tracks}`,
    enabled: true,
    muted: false,
    readyState: 'live',
    stop() {},
    getSettings: () => ({}),
  });
}
