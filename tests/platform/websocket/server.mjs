// A WebSocket server that does what a client's binary messages ask of it and sends back the rest.
// Arguments: one JSON object with `key` and `cert` (files).
import { readFileSync } from 'node:fs';
import { createServer as createHttp } from 'node:http';
import { createServer as createHttps } from 'node:https';
import { createRequire } from 'node:module';

const require = createRequire(new URL('../../../server/package.json', import.meta.url));
const { WebSocketServer } = require('ws');

const { key, cert } = JSON.parse(process.argv[2] ?? '{}');
const http = key
  ? createHttps({ key: readFileSync(key), cert: readFileSync(cert) })
  : createHttp();
const server = new WebSocketServer({ server: http });

// The codes with which connections have ended, for the others.
const codes = [];
const watchers = new Set();

const commands = {
  '!url': (ws, request) => ws.send(request.url),
  '!blob': (ws, request, size) => ws.send(Buffer.alloc(Number(size), 'x')),
  '!flood': (ws, request, count) => {
    for (let i = 0; i < Number(count); ++i) ws.send(Buffer.from(String(i)));
  },
  '!close': (ws, request, code) => (ws.send('bye'), code ? ws.close(Number(code)) : ws.close()),
  '!reset': (ws) => ws._socket.resetAndDestroy(),
  '!codes': (ws) => (watchers.add(ws), codes.forEach((code) => ws.send(String(code)))),
};

server.on('connection', (ws, request) => {
  ws.on('error', () => {});
  ws.on('close', (code) => {
    codes.push(code);
    watchers.delete(ws);
    watchers.forEach((watcher) => watcher.send(String(code)));
  });
  ws.on('message', (data, isBinary) => {
    const words = data.length < 50 ? data.toString().split(' ') : [];
    if (words[0] in commands) commands[words[0]](ws, request, ...words.slice(1));
    else ws.send(data, { binary: isBinary });
  });
});

http.listen(0, '127.0.0.1', () => console.log(http.address().port));
// The tests hold the other end: a server must not outlive them.
process.stdin.on('end', () => process.exit(0)).resume();
