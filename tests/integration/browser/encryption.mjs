/* global CRYPTOR */

/** The page's side of the worker that encrypts and decrypts; without it frames go as they are. */
export class Encryption {
  #worker = new Worker(URL.createObjectURL(new Blob([CRYPTOR], { type: 'text/javascript' })));
  #waiting = new Map();
  #number = 0;

  constructor() {
    this.#worker.onmessage = ({ data: { number, result } }) => {
      this.#waiting.get(number)(result);
      this.#waiting.delete(number);
    };
  }

  /** Has the worker do one of its orders; gives what comes of it. */
  do(order, argument) {
    const number = (this.#number += 1);
    return new Promise((resolve) => {
      this.#waiting.set(number, resolve);
      this.#worker.postMessage({ number, order, argument });
    });
  }

  /** `end` is an RTCRtpSender or an RTCRtpReceiver. */
  attach(end, mimeType) {
    const side = end instanceof RTCRtpSender ? 'send' : 'receive';
    const codec = mimeType.split('/')[1].toLowerCase();
    end.transform = new RTCRtpScriptTransform(this.#worker, { side, codec });
  }
}
