// Answers the benchmark's requests.
import { createServer } from 'node:http';
import { createRequire } from 'node:module';

const require = createRequire(new URL('../../server/package.json', import.meta.url));
const { Server } = require('socket.io');

const http = createServer();
const io = new Server(http, { transports: ['websocket'] });
io.on('connection', (socket) => {
  socket.on('request', (envelope, ack) => ack({ data: { status: 'ok', n: envelope.data.n } }));
});
http.listen(0, '127.0.0.1', () => console.log(http.address().port));
