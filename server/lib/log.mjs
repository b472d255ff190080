export const LEVELS = ['silent', 'error', 'warn', 'info', 'debug'];

/** Lines on stderr; fields are JSON, so no peer's text can forge a line. Never give it a token. */
export function createLog(level = 'info', write = (line) => process.stderr.write(line)) {
  const limit = LEVELS.indexOf(level);
  const log = {};
  for (const [rank, name] of LEVELS.entries()) {
    if (rank === 0) continue;
    log[name] = (text, fields) => {
      if (rank > limit) return;
      const tail = fields ? ` ${JSON.stringify(fields)}` : '';
      write(`${new Date().toISOString()} ${name} ${text}${tail}\n`);
    };
  }
  return log;
}
