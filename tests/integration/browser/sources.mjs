import { BITS, markWidth } from './mark.mjs';

/**
 * A camera that films a moving bar over grey, and along the top its frame number as black and
 * white fields, the lowest bit first.
 */
export function cameraTrack(width, height, framesPerSecond) {
  const canvas = Object.assign(document.createElement('canvas'), { width, height });
  const context = canvas.getContext('2d', { alpha: false });
  const field = markWidth(width);
  let number = 0;
  function draw() {
    number += 1;
    context.fillStyle = '#808080';
    context.fillRect(0, 0, width, height);
    context.fillStyle = '#20c040';
    context.fillRect((number * 8) % width, height / 3, width / 8, height / 2);
    for (let bit = 0; bit < BITS; bit += 1) {
      context.fillStyle = (number >> bit) & 1 ? '#ffffff' : '#000000';
      context.fillRect(bit * field, 0, field, field);
    }
  }
  draw();
  setInterval(draw, 1000 / framesPerSecond);
  return canvas.captureStream(framesPerSecond).getVideoTracks()[0];
}

/** A microphone that hears a tone. */
export function toneTrack(hertz) {
  const context = new AudioContext();
  const tone = new OscillatorNode(context, { frequency: hertz });
  const volume = new GainNode(context, { gain: 0.3 });
  const out = new MediaStreamAudioDestinationNode(context, { channelCount: 1 });
  tone.connect(volume).connect(out);
  tone.start();
  return out.stream.getAudioTracks()[0];
}
