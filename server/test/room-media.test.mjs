import * as assert from 'node:assert/strict';
import { after, before, it } from 'node:test';
import { createLog } from '../lib/log.mjs';
import { RoomMedia } from '../lib/room-media.mjs';
import { Workers } from '../lib/workers.mjs';
import { until } from './support.mjs';

const LEVEL_URI = 'urn:ietf:params:rtp-hdrext:ssrc-audio-level';
const LEVEL_ID = 10;
const workers = new Workers({ count: 1, log: createLog('silent'), onFatal: assert.ifError });

before(() => workers.start());
after(() => workers.close());

// 20 ms of Opus whose header extension says that it is `quietness` dB below full scale.
function packet(ssrc, sequence, quietness) {
  const bytes = Buffer.alloc(24);
  bytes.set([0x90, 100]);
  bytes.writeUInt16BE(sequence, 2);
  bytes.writeUInt32BE(sequence * 960, 4);
  bytes.writeUInt32BE(ssrc, 8);
  bytes.set([0xbe, 0xde, 0, 1, LEVEL_ID << 4, 0x80 | quietness], 12);
  return bytes;
}

it('tells who speaks loudest, and that nobody does', async (t) => {
  const speakers = [];
  const media = await RoomMedia.open(workers.next(), (peerId) => speakers.push(peerId));
  const transport = await media.router.createDirectTransport();
  const talk = {};
  for (const [ssrc, peerId] of [
    [1, 'ada'],
    [2, 'bob'],
  ]) {
    const producer = await transport.produce({
      kind: 'audio',
      appData: { peerId },
      rtpParameters: {
        codecs: [{ mimeType: 'audio/opus', payloadType: 100, clockRate: 48000, channels: 2 }],
        headerExtensions: [{ uri: LEVEL_URI, id: LEVEL_ID }],
        encodings: [{ ssrc }],
      },
    });
    await media.listen(producer);
    talk[peerId] = { producer, ssrc, quietness: 127 };
  }
  let sequence = 0;
  const clock = setInterval(() => {
    sequence += 1;
    for (const { producer, ssrc, quietness } of Object.values(talk)) {
      if (!producer.closed) producer.send(packet(ssrc, sequence, quietness));
    }
  }, 10);
  t.after(() => clearInterval(clock));
  const speaker = (peerId) => until(() => speakers.at(-1) === peerId);

  Object.assign(talk.ada, { quietness: 20 });
  await speaker('ada');
  Object.assign(talk.bob, { quietness: 5 });
  await speaker('bob');
  Object.assign(talk.bob, { quietness: 127 });
  await speaker('ada');
  Object.assign(talk.ada, { quietness: 127 });
  await speaker(null);
  Object.assign(talk.bob, { quietness: 5 });
  await speaker('bob');
  talk.bob.producer.close();
  assert.equal(speakers.at(-1), null);
  assert.deepEqual(speakers, ['ada', 'bob', 'ada', null, 'bob', null]);
  media.close();
});
