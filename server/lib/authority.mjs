import { execFileSync } from 'node:child_process';
import { X509Certificate } from 'node:crypto';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { openState } from './state.mjs';

const DAYS = 730;
const RENEW_BEFORE_MS = 24 * 3600 * 1000;

const CONFIGURATION = `
[req]
distinguished_name = name
prompt = no
[name]
CN = Kestrova local meeting service
[authority]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
subjectAltName = DNS:localhost, IP:127.0.0.1, IP:::1
`;

function openssl(folder, ...args) {
  try {
    execFileSync('openssl', args, { cwd: folder, stdio: ['ignore', 'ignore', 'pipe'] });
  } catch (error) {
    throw new Error(
      `openssl ${args[0]} failed: ${error.stderr?.toString().trim() || error.message}`,
    );
  }
}

// The authority's key goes as soon as it has signed: whoever trusts ca.pem trusts this one
// certificate for the loopback names and nothing that could be signed later.
function issue(folder) {
  fs.writeFileSync(path.join(folder, 'openssl.cnf'), CONFIGURATION);
  const key = [
    '-newkey',
    'ec',
    '-pkeyopt',
    'ec_paramgen_curve:P-256',
    '-nodes',
    '-config',
    'openssl.cnf',
  ];
  openssl(
    folder,
    'req',
    '-x509',
    ...key,
    '-keyout',
    'ca.key',
    '-out',
    'ca.pem',
    '-days',
    `${DAYS}`,
    '-extensions',
    'authority',
  );
  openssl(
    folder,
    'req',
    '-new',
    ...key,
    '-subj',
    '/CN=localhost',
    '-keyout',
    'server.key',
    '-out',
    'server.csr',
  );
  openssl(
    folder,
    'x509',
    '-req',
    '-in',
    'server.csr',
    '-CA',
    'ca.pem',
    '-CAkey',
    'ca.key',
    '-CAcreateserial',
    '-out',
    'server.pem',
    '-days',
    `${DAYS}`,
    '-extfile',
    'openssl.cnf',
    '-extensions',
    'server',
  );
  for (const name of fs.readdirSync(folder)) {
    if (!['ca.pem', 'server.pem', 'server.key'].includes(name))
      fs.unlinkSync(path.join(folder, name));
  }
  fs.chmodSync(path.join(folder, 'server.key'), 0o600);
}

function read(folder) {
  try {
    const cert = fs.readFileSync(path.join(folder, 'server.pem'));
    const key = fs.readFileSync(path.join(folder, 'server.key'));
    const caFile = path.join(folder, 'ca.pem');
    const server = new X509Certificate(cert);
    const authority = new X509Certificate(fs.readFileSync(caFile));
    const lasts = Date.parse(server.validTo) - Date.now() > RENEW_BEFORE_MS;
    return lasts && server.verify(authority.publicKey) ? { caFile, cert, key } : undefined;
  } catch {
    return undefined;
  }
}

/** Certificate and key for the loopback names, and the file of the authority that signed them. */
export function openAuthority(state) {
  const folder = path.join(openState(state), 'authority');
  const present = read(folder);
  if (present) return present;
  const fresh = fs.mkdtempSync(path.join(state, 'authority-'));
  try {
    issue(fresh);
    // Of two first starts at once the first rename wins, and both use its files.
    if (!read(folder)) fs.rmSync(folder, { recursive: true, force: true });
    try {
      fs.renameSync(fresh, folder);
    } catch (error) {
      if (error.code !== 'ENOTEMPTY' && error.code !== 'EEXIST') throw error;
    }
  } finally {
    fs.rmSync(fresh, { recursive: true, force: true });
  }
  const made = read(folder);
  if (!made)
    throw new Error(`no usable certificate in ${folder}; remove the folder and start again`);
  return made;
}
