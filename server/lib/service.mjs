import * as https from 'node:https';
import { openAuthority } from './authority.mjs';
import { configHandler } from './config.mjs';
import { controlHandler } from './control.mjs';
import { Faults } from './faults.mjs';
import { router } from './http.mjs';
import { createLog } from './log.mjs';
import { serviceOptions } from './options.mjs';
import { Rooms } from './rooms.mjs';
import { openSignalling } from './signalling.mjs';
import { controlKey, tokenSecret } from './state.mjs';
import { Workers } from './workers.mjs';

const ADDRESS = '127.0.0.1';
const SLOWEST_REQUEST_MS = 30000;

function listen(server, port) {
  return new Promise((resolve, reject) => {
    server.once('error', reject);
    server.listen(port, ADDRESS, resolve);
  });
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
  const { batch: batchMs, ackTimeout, grace, linger } = options;
  const rooms = new Rooms({
    workers,
    faults,
    settings: { batchMs, ackTimeout, grace, linger, log },
  });

  const { cert, key } = authority;
  const server = https.createServer({ cert, key, requestTimeout: SLOWEST_REQUEST_MS });
  const address = () => `${ADDRESS}:${server.address().port}`;
  const service = {
    options,
    secret: token.text,
    controlKey: control.text,
    faults,
    workers,
    rooms,
    log,
    address,
  };
  server.on(
    'request',
    router(
      [
        ['POST', '/infra/v1/meetings/init-config', configHandler(service)],
        ['POST', '/control/', controlHandler(service)],
      ],
      log,
    ),
  );
  server.on('tlsClientError', (error) =>
    log.debug('a TLS handshake failed', { error: error.message }),
  );
  const io = openSignalling(server, service);

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
  async function close() {
    for (const room of rooms.all()) room.end();
    const closed = io.close();
    server.closeAllConnections();
    await Promise.all([closed, workers.close()]);
  }
  return { ready, close };
}
