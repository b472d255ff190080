import { PlayedService } from './played.mjs';
import { SERVICES } from './table.mjs';
import { Voices } from './voices.mjs';

/** The services of one meeting. */
export class MeetingServices {
  #services = new Map();
  // Who wants a transcription, with what was asked for: "request", or a service that has one.
  #wanted = new Map();

  constructor(room) {
    this.voices = new Voices(room);
    const onStatus = (service, failed) => this.#changed(service, failed);
    for (const name of Object.keys(SERVICES))
      this.#services.set(name, new PlayedService(name, { room, onStatus }));
  }

  find(name) {
    return this.#services.get(name);
  }

  /** Accepts a start, or throws a RequestError. What it gives is to run after the answer. */
  start(name, asked) {
    const begin = this.find(name).start(asked);
    if (name === 'transcription') this.#wanted.set('request', asked);
    const { enabled, ...more } = asked.transcription ?? {};
    if (!enabled) return begin;
    return () => {
      begin();
      this.#want(name, { with: name, ...more });
    };
  }

  stop(name) {
    const begin = this.find(name).stop();
    if (name === 'transcription') this.#wanted.clear();
    return begin;
  }

  #want(name, asked) {
    this.#wanted.set(name, asked);
    this.#resume();
  }

  // One that is stopping starts again when it has stopped.
  #resume() {
    const transcription = this.find('transcription');
    const [asked] = this.#wanted.values();
    if (asked && transcription.status === 'STOPPED') transcription.start(asked)();
  }

  #release(name) {
    const transcription = this.find('transcription');
    const last = this.#wanted.delete(name) && this.#wanted.size === 0;
    if (last && ['STARTING', 'STARTED'].includes(transcription.status)) transcription.stop()();
  }

  #changed({ name, status }, failed) {
    if (name !== 'transcription') {
      if (status === 'STOPPING' || status === 'STOPPED') this.#release(name);
      return;
    }
    if (status === 'STARTED') this.voices.start();
    else this.voices.stop();
    if (failed) this.#wanted.clear();
    else if (status === 'STOPPED') this.#resume();
  }

  /** Tells one who has just joined how things stand. */
  tell(peer) {
    for (const service of this.#services.values()) service.tell(peer);
  }

  retime() {
    this.voices.retime();
    for (const service of this.#services.values()) service.retime();
  }

  end() {
    this.voices.stop();
    for (const service of this.#services.values()) service.end();
  }

  dump() {
    return Object.fromEntries([...this.#services].map(([name, service]) => [name, service.dump()]));
  }
}
