import { createRequire } from 'node:module';
import * as path from 'node:path';

const server = path.join(import.meta.dirname, '../../../server');
const { chromium } = createRequire(path.join(server, 'package.json'))('playwright-core');

const SWITCHES = [
  ...['--disable-quic', '--no-first-run', '--disable-background-networking', '--disable-sync'],
  '--disable-component-update',
];

export function openBrowser() {
  return chromium.launch({
    executablePath: process.env.CHROMIUM ?? '/usr/bin/chromium',
    chromiumSandbox: process.getuid() !== 0,
    args: SWITCHES,
  });
}

/** A page without an address yet; `trouble` is what it complains of. */
export async function newPage(browser, { width = 1280, height = 900, ...options } = {}) {
  const page = await browser.newPage({ viewport: { width, height }, ...options });
  const trouble = [];
  page.on('pageerror', (error) => trouble.push(error.stack));
  page.on('console', (message) => {
    if (message.type() === 'error') trouble.push(message.text());
  });
  return Object.assign(page, { trouble });
}
