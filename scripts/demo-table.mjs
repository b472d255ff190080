// What the demo shows while it runs: what each participant sees and hears of the other.

const COLUMNS = [
  ['WHO', 18, 'left'],
  ['STATE', 12, 'left'],
  ['PICTURE', 9, 'right'],
  ['FPS', 5, 'right'],
  ['KBIT/S', 7, 'right'],
  ['SOUND', 14, 'left'],
  ['HZ', 6, 'right'],
  ['RTT MS', 6, 'right'],
];
const METER_BLOCKS = 8;
const METER_FLOOR_DB = -48;

const number = (value, decimals) => (value == null ? '–' : value.toFixed(decimals));

function meter(db) {
  if (db == null) return '–';
  const share = 1 - Math.min(0, Math.max(db, METER_FLOOR_DB)) / METER_FLOOR_DB;
  const lit = Math.round(share * METER_BLOCKS);
  return `${'▮'.repeat(lit)}${'▯'.repeat(METER_BLOCKS - lit)}${db.toFixed(0).padStart(4)}dB`;
}

const remoteOf = (person) => person.sample?.people.find(({ local }) => !local);

function row(person, other) {
  const remote = remoteOf(person) ?? {};
  const seen = remote.width > 0;
  return [
    `${person.name} sees ${other.name}`,
    person.sample?.state ?? 'starting',
    seen ? `${remote.width}x${remote.height}` : '–',
    seen ? number(remote.fps, 1) : '–',
    number(remote.kbps, 0),
    meter(remote.levelDb),
    number(remote.hertz, 0),
    number(remote.roundTripMs, 1),
  ];
}

function format(cells) {
  const fit = (text, [, width, side]) =>
    side === 'right' ? text.padStart(width) : text.slice(0, width).padEnd(width);
  return cells.map((cell, i) => fit(cell, COLUMNS[i])).join('  ');
}

/** Draws a table over the one before; without colours if NO_COLOR asks for that. */
export function drawTable(out, env = process.env) {
  const colour = out.isTTY && !env.NO_COLOR && env.TERM !== 'dumb';
  const paint = (code, text) => (colour ? `\x1b[${code}m${text}\x1b[0m` : text);
  let drawn = 0;
  return {
    draw([first, second]) {
      const lines = [`  ${paint(2, format(COLUMNS.map(([title]) => title)))}`];
      for (const [person, other] of [
        [first, second],
        [second, first],
      ]) {
        const flowing = (remoteOf(person)?.fps ?? 0) >= 1;
        lines.push(
          `${paint(flowing ? 32 : 33, flowing ? '●' : '○')} ${format(row(person, other))}`,
        );
      }
      const up = drawn ? `\x1b[${drawn}A` : '';
      // Without wrapping, so that every line stays one line.
      out.write(`\x1b[?7l${up}\r${lines.map((line) => `${line}\x1b[K\n`).join('')}\x1b[?7h`);
      drawn = lines.length;
    },
  };
}

/** The same in one line, for a log. */
export function progressLine([first, second]) {
  const half = (person, other) => {
    const remote = remoteOf(person);
    if (!remote?.width) return `${person.name}: ${person.sample?.state ?? 'starting'}`;
    return (
      `${person.name} sees ${other.name} ${remote.width}x${remote.height} ` +
      `${number(remote.fps, 1)} fps ${number(remote.kbps, 0)} kbit/s, ` +
      `hears ${number(remote.hertz, 0)} Hz`
    );
  };
  const seconds = ((first.sample?.ms ?? 0) / 1000).toFixed(1).padStart(5);
  return `${seconds} s  ${half(first, second)}  |  ${half(second, first)}`;
}
