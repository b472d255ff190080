// A Socket.IO server that does what a test asks of it. Arguments: one JSON object with `port`,
// `path`, `key` and `cert` (files), `pingInterval`, `pingTimeout`, `maxHttpBufferSize`.
import { readFileSync } from 'node:fs';
import { createServer as createHttp } from 'node:http';
import { createServer as createHttps } from 'node:https';
import { createRequire } from 'node:module';

const require = createRequire(new URL('../../../server/package.json', import.meta.url));
const { Server } = require('socket.io');

const options = JSON.parse(process.argv[2] ?? '{}');
const http = options.key
  ? createHttps({ key: readFileSync(options.key), cert: readFileSync(options.cert) })
  : createHttp();
const { port = 0, key, cert, ...engineOptions } = options;
const io = new Server(http, { transports: ['websocket'], ...engineOptions });

const notes = [];
let closed = 0;

io.use((socket, next) => {
  if (!socket.handshake.query.refuse) return next();
  const refusal = new Error('not for you');
  refusal.data = { code: 4001 };
  next(refusal);
});

io.on('connection', (socket) => {
  let heartbeats = 0;
  const waiting = [];
  socket.conn.on('heartbeat', () => {
    ++heartbeats;
    while (waiting.length && waiting[0].count <= heartbeats) waiting.shift().ack(heartbeats);
  });

  socket.emit('connectionSuccess', { sid: socket.id });
  socket.on('request', (envelope, ack) => ack({ data: { status: 'ok', n: envelope.data?.n } }));
  socket.on('echo', (...items) => items.pop()(...items));
  socket.on('nothing', () => {});
  socket.on('late', (ms, ack) => setTimeout(ack, ms, 'late'));
  socket.on('twice', (ack) => (ack('one'), ack('two')));
  socket.on('heartbeats', (count, ack) => waiting.push({ count, ack }));
  socket.on('query', (ack) => ack(socket.handshake.query, socket.handshake.headers));
  socket.on('note', (text) => notes.push(text));
  socket.on('notes', (ack) => ack(notes));
  socket.on('closed', (ack) => ack(closed));
  socket.on('ask', (event, ...items) =>
    socket.emit(event, ...items, (...answer) => socket.emit('answered', ...answer)));
  socket.on('tell', (...packets) => packets.forEach((packet) => socket.emit(...packet)));
  socket.on('kick', () => socket.disconnect());
  socket.on('cut', () => socket.conn.transport.socket.terminate());
  socket.on('disconnect', (reason) => {
    ++closed;
    notes.push(reason);
    io.emit('left', reason);
  });
});

http.listen(port, '127.0.0.1', () => console.log(http.address().port));
// The tests hold the other end: a server must not outlive them.
process.stdin.on('end', () => process.exit(0)).resume();
