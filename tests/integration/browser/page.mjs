import { Device } from 'mediasoup-client';
import { io } from 'socket.io-client';
import { Encryption } from './encryption.mjs';
import { cameraTrack, toneTrack } from './sources.mjs';
import { Topics } from './topics.mjs';
import { PictureWatch, ToneWatch } from './watches.mjs';

const PATIENCE_MS = 10000;
const LAYERS = [
  { rid: 'q', scaleResolutionDownBy: 4, maxBitrate: 100_000 },
  { rid: 'h', scaleResolutionDownBy: 2, maxBitrate: 300_000 },
  { rid: 'f', scaleResolutionDownBy: 1, maxBitrate: 900_000 },
];

/** A participant in a page. What it sees and hears of the others is in `seen`, by their id. */
class Participant {
  seen = {};
  failures = [];
  consumers = new Map();
  #handlers = {
    entryResponded: ({ decision }) => this.entered(decision),
    consumerClosed: ({ consumerId }) => this.#drop(consumerId),
  };

  constructor({ service, roomId, peerId, token, encrypted }) {
    Object.assign(this, { roomId, peerId, token, device: new Device() });
    if (encrypted) this.encryption = new Encryption();
    this.socket = io(`https://${service}`, {
      path: '/meeting/socket.io',
      transports: ['websocket'],
      query: { roomId, peerId, secret: token, mode: 'SEND_AND_RECV', lib: 'socket' },
    });
    this.socket.on('notification', (item, ack) => {
      ack({});
      this.#handlers[item.method]?.(item.data);
    });
    this.socket.on('newConsumer', (item, ack) =>
      this.#consume(item.data).then(
        () => ack(['']),
        (error) => this.failures.push(`newConsumer: ${error.message}`),
      ),
    );
  }

  async request(method, data = {}) {
    const item = { method, roomId: this.roomId, request: true, data };
    const answer = await this.socket.timeout(PATIENCE_MS).emitWithAck('request', item);
    if (answer?.data?.status !== 'ok') throw new Error(`${method}: ${JSON.stringify(answer)}`);
    return answer.data;
  }

  async join() {
    await new Promise((resolve, reject) => {
      this.socket.on('connectionSuccess', resolve);
      this.socket.on('connect_error', reject);
    });
    const decided = new Promise((resolve) => (this.entered = resolve));
    await this.request('requestEntry', { name: this.peerId });
    if ((await decided) !== 'allowed') throw new Error('the entry was denied');
    const routerRtpCapabilities = await this.request('getRouterRtpCapabilities');
    await this.device.load({ routerRtpCapabilities });
    this.send = await this.#transport('createSendTransport', true);
    this.receive = await this.#transport('createRecvTransport', false);
    const { pubSubUrl } = await this.request('join', {
      displayName: this.peerId,
      device: 'browser',
      secret: this.token,
      metaData: {},
      rtpCapabilities: this.device.rtpCapabilities,
      switchingRoom: false,
      mode: 'SEND_AND_RECV',
      deviceInfo: {},
      batchingEnabled: false,
    });
    this.topics = new Topics(pubSubUrl, this.peerId);
  }

  async #transport(create, producing) {
    const details = await this.request('createWebRtcTransport', {
      preferredProtocol: 'UDP_OVER_TCP',
      producing,
      consuming: !producing,
    });
    const transport = this.device[create](details);
    const { id: transportId } = transport;
    transport.on('connect', ({ dtlsParameters }, done, failed) => {
      this.request('connectWebRtcTransport', { transportId, dtlsParameters }).then(done, failed);
    });
    transport.on('produce', ({ kind, rtpParameters, appData }, done, failed) => {
      this.request('produce', { transportId, kind, rtpParameters, appData }).then(done, failed);
    });
    return transport;
  }

  publishTone(hertz) {
    return this.send.produce({ track: toneTrack(hertz), ...this.#sending('audio/opus') });
  }

  #sending(mimeType) {
    return { onRtpSender: (sender) => this.encryption?.attach(sender, mimeType) };
  }

  /** `mimeType` as the device has it; simulcast in three layers when `simulcast`. */
  async publishCamera({ mimeType, simulcast, width, height, framesPerSecond }) {
    const { codecs } = this.device.sendRtpCapabilities;
    const codec = codecs.find((one) => one.mimeType.toLowerCase() === mimeType.toLowerCase());
    if (!codec) throw new Error(`${mimeType} can't be sent`);
    const track = cameraTrack(width, height, framesPerSecond);
    await this.send.produce({
      track,
      codec,
      encodings: simulcast ? LAYERS : [{ maxBitrate: 900_000 }],
      codecOptions: { videoGoogleStartBitrate: 2000 },
      ...this.#sending(mimeType),
    });
  }

  async #consume({ id, producerId, kind, rtpParameters, appData, peerId }) {
    const [{ mimeType }] = rtpParameters.codecs;
    const onRtpReceiver = (receiver) => this.encryption?.attach(receiver, mimeType);
    const stream = { id, producerId, kind, rtpParameters, appData };
    const consumer = await this.receive.consume({ ...stream, onRtpReceiver });
    this.seen[peerId] ??= {};
    const watch = kind === 'video' ? new PictureWatch(consumer) : new ToneWatch(consumer);
    this.seen[peerId][kind] = watch.seen;
    this.consumers.set(id, { consumer, watch });
  }

  #drop(consumerId) {
    const { consumer, watch } = this.consumers.get(consumerId) ?? {};
    this.consumers.delete(consumerId);
    watch?.stop();
    consumer?.close();
  }

  leave() {
    this.socket.emit('request', {
      method: 'definePeerLeftReason',
      roomId: this.roomId,
      request: true,
      data: { leaveReason: 'MANUAL_LEAVE_CALLED' },
    });
    this.socket.disconnect();
  }
}

/** Makes the participant of this page and joins. */
globalThis.joinMeeting = async (options) => {
  globalThis.participant = new Participant(options);
  await globalThis.participant.join();
};
