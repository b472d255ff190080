import { createHash, X509Certificate } from 'node:crypto';
import { once } from 'node:events';
import { createServer } from 'node:http';
import { createRequire } from 'node:module';
import * as path from 'node:path';
import { connect } from 'node:tls';

const server = path.join(import.meta.dirname, '../../../server');
const require = createRequire(path.join(server, 'package.json'));
const { build } = require('esbuild');
const { chromium } = require('playwright-core');

const SWITCHES = [
  ...['--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-sync'],
  ...['--disable-component-update', '--autoplay-policy=no-user-gesture-required'],
];

async function bundled(file, define = {}) {
  const { outputFiles } = await build({
    entryPoints: [path.join(import.meta.dirname, file)],
    bundle: true,
    write: false,
    format: 'iife',
    platform: 'browser',
    nodePaths: [path.join(server, 'node_modules')],
    define,
    logLevel: 'error',
  });
  return outputFiles[0].text;
}

/** The page's script, with that of its worker as a text in it. */
async function bundle() {
  const CRYPTOR = JSON.stringify(await bundled('cryptor.mjs'));
  return bundled('page.mjs', { CRYPTOR });
}

/** What the browser calls the key of the service's certificate, which is first checked here. */
async function keyHash(address, ca) {
  const [host, port] = address.split(':');
  const socket = connect({ host, port, ca });
  await once(socket, 'secureConnect');
  const { raw } = socket.getPeerCertificate();
  socket.destroy();
  const key = new X509Certificate(raw).publicKey.export({ type: 'spki', format: 'der' });
  return createHash('sha256').update(key).digest('base64');
}

// A page from the loopback is a secure one, and may talk to a service on the loopback.
async function servePage(script) {
  const page = `<!doctype html><body></body><script>${script.replaceAll('</', '<\\/')}</script>`;
  const web = createServer((request, response) => {
    response.writeHead(200, { 'content-type': 'text/html; charset=utf-8' }).end(page);
  });
  web.listen(0, '127.0.0.1');
  await once(web, 'listening');
  return web;
}

/** A browser that accepts the certificate of `service`, and no other that is unknown. */
export async function openBrowser({ ready, ca }) {
  const [script, hash] = await Promise.all([bundle(), keyHash(ready.service, ca)]);
  const browser = await chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    chromiumSandbox: process.getuid() !== 0,
    args: [...SWITCHES, `--ignore-certificate-errors-spki-list=${hash}`],
  });
  const web = await servePage(script);
  return {
    async page() {
      const page = await browser.newPage();
      const trouble = [];
      page.on('pageerror', (error) => trouble.push(error.stack));
      await page.goto(`http://127.0.0.1:${web.address().port}/`);
      return Object.assign(page, { trouble });
    },
    async close() {
      await browser.close();
      web.closeAllConnections();
      await new Promise((resolve) => web.close(resolve));
    },
  };
}
