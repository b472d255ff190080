import { randomBytes } from 'node:crypto';
import * as fs from 'node:fs';
import * as path from 'node:path';

export function openState(folder) {
  fs.mkdirSync(folder, { recursive: true, mode: 0o700 });
  return path.resolve(folder);
}

/** Written beside the target and renamed: a reader sees the whole file or none. */
export function writeWhole(file, text, mode = 0o600) {
  const partial = `${file}.${process.pid}.${randomBytes(4).toString('hex')}`;
  fs.writeFileSync(partial, text, { mode });
  fs.renameSync(partial, file);
}

/** The random text in `folder`/`name`, made on first use; two that race get the same one. */
export function readOrCreateSecret(folder, name) {
  const file = path.join(openState(folder), name);
  if (!fs.existsSync(file)) {
    const partial = `${file}.${process.pid}.${randomBytes(4).toString('hex')}`;
    fs.writeFileSync(partial, `${randomBytes(32).toString('hex')}\n`, { mode: 0o600 });
    try {
      fs.linkSync(partial, file);
    } catch (error) {
      if (error.code !== 'EEXIST') throw error;
    } finally {
      fs.unlinkSync(partial);
    }
  }
  const text = fs.readFileSync(file, 'utf8').trim();
  if (text.length < 32) throw new Error(`${file} holds no secret; remove it to get a new one`);
  return { file, text };
}

export const tokenSecret = (folder) => readOrCreateSecret(folder, 'secret');
export const controlKey = (folder) => readOrCreateSecret(folder, 'control-key');
