import { once } from 'node:events';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { createInterface } from 'node:readline';
import { after, before, test } from 'node:test';
import * as assert from 'node:assert/strict';
import { openService, temporaryFolder } from '../../../server/test/support.mjs';
import { joinAs, Run, start } from './support.mjs';

let service;
before(async () => {
  service = await openService();
});
after(() => service.close());

const configuration = `<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>
  <auth>EXTERNAL</auth><policy context="default"><allow send_destination="*" eavesdrop="true"/>
  <allow eavesdrop="true"/><allow own="*"/></policy></busconfig>`;

/** A telephone on a bus of its own. */
async function openTelephone() {
  const folder = temporaryFolder();
  fs.writeFileSync(path.join(folder, 'bus.conf'), configuration);
  const address = `unix:path=${folder}/bus`;
  const env = { DBUS_SYSTEM_BUS_ADDRESS: address };
  const bus = start(
    'dbus-daemon',
    [`--config-file=${folder}/bus.conf`, '--nofork', '--nopidfile', '--nosyslog'].concat([
      `--address=${address}`,
      '--print-address',
    ]),
    { stdio: ['ignore', 'pipe', 'ignore'] },
  );
  await once(bus.stdout, 'data');
  const script = path.join(import.meta.dirname, 'telephone.py');
  const telephone = start('/usr/bin/python3', [script], {
    env: { ...process.env, ...env },
    stdio: ['pipe', 'pipe', 'inherit'],
  });
  const lines = createInterface({ input: telephone.stdout });
  await once(lines, 'line');
  return {
    env,
    async becomes(state) {
      const done = once(lines, 'line');
      telephone.stdin.write(`${state}\n`);
      await done;
    },
    async close() {
      telephone.stdin.end();
      await once(telephone, 'close');
      bus.kill('SIGKILL');
      fs.rmSync(folder, { recursive: true, force: true });
    },
  };
}

test('a meeting is told of a telephone call, from its ringing to its end', async () => {
  const telephone = await openTelephone();
  try {
    const { args, env } = joinAs(service, 'calls', 'Ada');
    const quiet = ['--json', '--camera', 'none', '--mic', 'none'];
    const ada = new Run([...args, ...quiet], { ...env, ...telephone.env });
    await ada.event('joined');
    const calls = () => ada.all('call', 'state');
    const [ringing, active, terminated] = [3, 4, 7];
    // Until the library hears of calls, which it doesn't tell.
    while (calls().length === 0) await telephone.becomes(ringing);
    await telephone.becomes(active);
    await telephone.becomes(terminated);
    await ada.event('call', ({ state }) => state === 'hung up');
    assert.deepEqual(calls(), ['ringing', 'answered', 'hung up']);
    assert.deepEqual([...new Set(ada.all('call', 'type'))], ['incoming']);
    assert.equal(await ada.stop('SIGINT'), 130);
  } finally {
    await telephone.close();
  }
});
