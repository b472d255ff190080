import { until } from './support.mjs';

export const NEVER_MS = 600_000;

// What tells of the services, in the order in which it came.
const ABOUT = /^(error|recording|livestream|hls|transcription|whiteboard)/;
export const told = (client) =>
  client.events
    .filter(({ method }) => ABOUT.test(method))
    .map(({ method, data }) => data.status ?? data.code ?? method);

export const SERVICES = {
  recording: ['startRecording', 'stopRecording', {}],
  livestream: [
    'startLivestream',
    'stopLivestream',
    { outputs: [{ url: 'rtmp://127.0.0.1/app', streamKey: 'k' }] },
  ],
  hls: ['startHls', 'stopHls', {}],
  transcription: ['startTranscription', 'stopTranscription', {}],
  whiteboard: ['startWhiteboard', 'stopWhiteboard', { version: 'v2' }],
};

let meetings = 0;

/** A meeting of its own with these participants, who have joined. */
export async function meetingOf(service, ...peerIds) {
  meetings += 1;
  const roomId = `meeting-${meetings}`;
  const clients = peerIds.map((id) => service.client(id, { roomId }));
  for (const client of clients) await client.join();
  const control = (action, body) => service.control(action, { roomId, ...body });
  const state = async (name) => (await control('rooms')).rooms[0].services[name];
  const reaches = (name, status) => until(async () => (await state(name)).status === status);
  return { roomId, clients, control, state, reaches };
}

/** Waits for a notification that comes behind all that was sent before it. */
export async function settled({ control }, ...clients) {
  for (const { peerId } of clients)
    await control('notify', { peerId, method: 'marker', data: {} });
  for (const client of clients) await client.next('marker');
}
