// The reference client at the same work. Arguments: URL, seconds, requests in flight. Prints one
// line of JSON: requests a second and CPU microseconds a request.
import { createRequire } from 'node:module';

const require = createRequire(new URL('../../server/package.json', import.meta.url));
const { io } = require('socket.io-client');

const [url, seconds, inFlight] = [process.argv[2], +process.argv[3], +process.argv[4]];
const socket = io(url, { transports: ['websocket'] });
const warmUp = 1000;
let n = 0;
let start;
let cpu;

function request() {
  const data = { n, kind: 'video', paused: false, ids: ['a', 'b', 'c'] };
  const envelope = { method: 'pauseConsumer', roomId: 'room-1', request: true, data };
  socket.timeout(20000).emit('request', envelope, (error, answer) => {
    if (error || answer.data.status !== 'ok') throw new Error('no answer');
    if (++n === warmUp) {
      start = process.hrtime.bigint();
      cpu = process.cpuUsage();
    }
    const elapsed = n > warmUp ? Number(process.hrtime.bigint() - start) / 1e9 : 0;
    if (elapsed < seconds) return request();
    if (!socket.connected) return;
    const used = process.cpuUsage(cpu);
    const count = n - warmUp;
    console.log(JSON.stringify({ rate: count / elapsed, cpu: (used.user + used.system) / count }));
    process.exit(0);
  });
}
socket.on('connect', () => {
  for (let i = 0; i < inFlight; ++i) request();
});
