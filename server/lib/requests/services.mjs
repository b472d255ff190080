import { askedOf } from '../services/checks.mjs';

// Whoever has joined may: no permission of the token is about the services.
const start = (name) => ({
  needs: 'join',
  run({ room, data, after }) {
    after(room.services.start(name, askedOf(name, data)));
  },
});
const stop = (name) => ({
  needs: 'join',
  run({ room, after }) {
    after(room.services.stop(name));
  },
});

export const serviceRequests = {
  startRecording: start('recording'),
  stopRecording: stop('recording'),
  startLivestream: start('livestream'),
  stopLivestream: stop('livestream'),
  startHls: start('hls'),
  stopHls: stop('hls'),
  startTranscription: start('transcription'),
  stopTranscription: stop('transcription'),
  startWhiteboard: start('whiteboard'),
  stopWhiteboard: stop('whiteboard'),
};
