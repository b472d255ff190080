import * as https from 'node:https';
import { setTimeout as delay } from 'node:timers/promises';
import { openAuthority } from './authority.mjs';
import { configHandler } from './config.mjs';
import { controlHandler } from './control.mjs';
import { Fastws, FASTWS_PATH, refuseUpgrade } from './fastws/endpoint.mjs';
import { Faults } from './faults.mjs';
import { router } from './http.mjs';
import { createLog } from './log.mjs';
import { Observability } from './observability/observability.mjs';
import { serviceOptions } from './options.mjs';
import { Files, FILES_PATH, UPLOAD_PATH } from './realtime/files.mjs';
import { Rooms } from './rooms.mjs';
import { pagesHandler, PAGES_PATH } from './services/pages.mjs';
import { Tempo } from './services/tempo.mjs';
import { openSignalling, SIGNALLING_PATH } from './signalling.mjs';
import { controlKey, tokenSecret } from './state.mjs';
import { Workers } from './workers.mjs';

const ADDRESS = '127.0.0.1';
// As long as clients wait for a file that they send.
const SLOWEST_REQUEST_MS = 60000;

function listen(server, port) {
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, ADDRESS, resolve);
  });
}

/** What the server answers, by path; gives the signalling. */
function serve(server, service) {
  const { fastws, files, observability, log } = service;
  const routes = [
    ['POST', '/infra/v1/meetings/init-config', configHandler(service)],
    ['POST', '/control/', controlHandler(service)],
    ['POST', UPLOAD_PATH, (...args) => files.upload(...args)],
    ['GET', FILES_PATH, (...args) => files.fetch(...args)],
    ['GET', PAGES_PATH, pagesHandler(service)],
    ...observability.routes(),
  ];
  server.on('request', router(routes, log));
  server.on('tlsClientError', (error) =>
    log.debug('a TLS handshake failed', { error: error.message }),
  );
  server.on('upgrade', (request, socket, head) => {
    const path = request.url.split('?', 1)[0];
    if (path === FASTWS_PATH) fastws.upgrade(request, socket, head);
    else if (!path.startsWith(SIGNALLING_PATH)) refuseUpgrade(socket, 404);
  });
  return openSignalling(server, service);
}

/**
 * Starts the whole service. `onFatal(error)` is called when it cannot go on. Gives `ready`, the
 * record of where it is, and `close()`.
 */
export async function startService(given = {}, { onFatal = () => {}, log } = {}) {
  const options = serviceOptions(given);
  log ??= createLog(options.logLevel);
  const authority = openAuthority(options.state);
  const token = tokenSecret(options.state);
  const control = controlKey(options.state);
  const faults = new Faults();
  const workers = new Workers({ count: options.workers, log, onFatal });
  const { batch: batchMs, ackTimeout, grace, linger, characterThink } = options;
  const media = { ip: options.mediaAddress, announcedAddress: options.announcedAddress };
  const topics = { stored: options.pubsubStored, batchMs: options.pubsubBatch };
  const tempo = {
    delays: new Tempo(options.serviceDelay),
    pace: new Tempo(options.transcriptionPace),
  };

  const { cert, key } = authority;
  const server = https.createServer({ cert, key, requestTimeout: SLOWEST_REQUEST_MS });
  const address = () => `${ADDRESS}:${server.address().port}`;
  const timing = { batchMs, ackTimeout, grace, linger, characterThink, tempo };
  const settings = { ...timing, media, topics, address, log };
  const fastws = new Fastws({ pingMs: options.pubsubPingInterval, faults, log, address });
  const rooms = new Rooms({
    workers,
    faults,
    settings,
    onLeft: (peer) => fastws.expel(peer),
    onEmpty: (room) => files.forget(room),
  });
  const files = new Files({
    rooms,
    secret: token.text,
    largest: options.fileSize,
    mostBytes: options.filesTotal,
    address,
  });
  const observability = new Observability({
    secret: token.text,
    faults,
    log,
    address,
    enabled: !options.noObservability,
  });
  const service = {
    options,
    secret: token.text,
    controlKey: control.text,
    faults,
    tempo,
    workers,
    rooms,
    fastws,
    files,
    observability,
    log,
    address,
    restart,
  };
  const io = serve(server, service);

  try {
    await workers.start();
    await listen(server, options.port);
  } catch (error) {
    await workers.close();
    throw error;
  }
  server.on('error', onFatal);

  const ready = {
    service: address(),
    ca: authority.caFile,
    control: `https://${address()}/control`,
    secretFile: token.file,
    controlKeyFile: control.file,
  };
  let closing = false;
  let down;

  /**
   * Drops every connection, listens no more for `ms` and then again at the same port. The meetings
   * end, or wait: a participant's grace time then runs from the moment when the service is back.
   */
  async function restart(ms, { keepRooms }) {
    if (closing || down) return;
    const { port } = server.address();
    log.info('the service goes down for a while', { ms, keepRooms });
    settings.away = keepRooms ? ms : 0;
    if (!keepRooms) for (const room of rooms.all()) room.end();
    for (const { transport } of Object.values(io.engine.clients)) transport.socket.terminate();
    fastws.terminate();
    down = new AbortController();
    const closed = new Promise((resolve) => server.close(resolve));
    server.closeAllConnections();
    try {
      await closed;
      await delay(ms, undefined, { signal: down.signal });
      await listen(server, port);
      settings.away = 0;
    } catch (error) {
      if (error.name !== 'AbortError') onFatal(error);
    } finally {
      down = undefined;
    }
  }

  async function close() {
    closing = true;
    for (const room of rooms.all()) room.end();
    fastws.terminate();
    down?.abort();
    const closed = io.close();
    server.closeAllConnections();
    await Promise.all([closed, workers.close()]);
  }
  return { ready, close };
}
