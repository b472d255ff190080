import * as assert from 'node:assert/strict';
import { once } from 'node:events';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { joinAs, start } from './support.mjs';

const quoted = (words) => words.map((word) => `'${word}'`).join(' ');

/**
 * kestrova-meet on a terminal of its own, whose mode is printed once the program has ended. Its files
 * are in `folder`.
 */
export class TerminalRun {
  output = '';

  constructor(service, folder, meeting, name, ...more) {
    this.pidFile = path.join(folder, `${name}.pid`);
    const { args, env } = joinAs(service, meeting, name);
    const extra = typeof more[0] === 'object' ? more.shift() : {}; // of its environment
    const program = quoted([process.env.KESTROVA_MEET, ...args, ...more]);
    const line = `sh -c 'echo $$ > "$PID_FILE"; exec "$@"' sh ${program}; echo "ended $?"; stty -a`;
    this.child = start('script', ['-qefc', line, '/dev/null'], {
      env: { ...process.env, ...env, ...extra, PID_FILE: this.pidFile, SHELL: '/bin/sh', TERM: 'xterm' },
      stdio: ['pipe', 'pipe', 'inherit'],
    });
    this.child.stdout.on('data', (data) => (this.output += data));
    this.ended = once(this.child, 'close');
  }

  press(keys) {
    this.child.stdin.write(keys);
  }

  kill(signal) {
    process.kill(Number(fs.readFileSync(this.pidFile, 'utf8')), signal);
  }

  /** Waits until the program has written something that matches. */
  shows(pattern) {
    return this.#until(() => pattern.test(this.output), pattern);
  }

  /** The lines of the table as they were drawn last, without their colours. */
  get table() {
    const end = this.output.lastIndexOf('\u001b[?7h');
    const start = this.output.lastIndexOf('\u001b[?7l', end);
    const drawn = this.output.slice(start, end);
    return drawn.split('\n').map((line) => line.replace(/\u001b\[[?\d]*[a-zA-Z]|\r/g, ''));
  }

  /** Waits until one of these lines matches; `gone`: until none does any more. */
  async draws(pattern, { gone = false } = {}) {
    await this.#until(() => this.table.some((line) => pattern.test(line)) !== gone, pattern);
  }

  async #until(fits, what) {
    while (!fits()) {
      const gone = this.ended.then(() => true);
      const more = once(this.child.stdout, 'data').then(() => false);
      if ((await Promise.race([gone, more])) && !fits())
        assert.fail(`ended without ${what}: ${this.output}`);
    }
  }

  /** Its exit status, after a look at how it left the terminal. */
  async finish() {
    await this.shows(/ended \d+/);
    this.child.stdin.end();
    await this.ended;
    assert.match(this.output, /[^-]icanon/, 'lines are edited again');
    assert.match(this.output, /[^-]echo\b/, 'what is typed is seen again');
    return Number(/ended (\d+)/.exec(this.output)[1]);
  }
}
