import { spawnSync } from 'node:child_process';
import * as fs from 'node:fs';
import * as path from 'node:path';
import { once } from 'node:events';
import { temporaryFolder, until } from '../../../server/test/support.mjs';
import { start } from './support.mjs';

const programs = ['sway', 'swaymsg', 'swaybg', 'pipewire', 'wireplumber', 'wpctl', 'dbus-daemon', 'busctl', 'setpriv'];
const portals = ['xdg-permission-store', 'xdg-desktop-portal-wlr', 'xdg-desktop-portal'];
const nobody = 65534;

/** What a Wayland desktop needs and this machine lacks. */
export const missingForDesktop = () => [
  ...programs.filter((name) => spawnSync('sh', ['-c', `command -v ${name}`]).status !== 0),
  ...portals.filter((name) => !fs.existsSync(`/usr/libexec/${name}`)),
];

/**
 * A Wayland desktop without a screen or a graphics card, in a folder of its own: a bus, a compositor,
 * PipeWire, and the portal by which programs ask for the screen.
 */
export class Desktop {
  folder = temporaryFolder();
  #children = [];

  /** `chooser` stands for the user whom the portal asks; without it everything is allowed. */
  static async open({ colour, size, chooser, screencopy }) {
    const desktop = new Desktop();
    try {
      await desktop.#start(colour, size, chooser, screencopy);
    } catch (error) {
      await desktop.close();
      throw error;
    }
    return desktop;
  }

  #at = (...names) => path.join(this.folder, ...names);

  #run(command, args = [], env = {}) {
    // The children end with this process, too, however that ends.
    const child = start('setpriv', ['--pdeathsig', 'KILL', command, ...args], {
      env: { ...this.env, ...env },
      stdio: ['ignore', fs.openSync(this.#at('log', path.basename(command)), 'w'), 'ignore'],
    });
    this.#children.unshift(child);
    return child;
  }

  #owns = (name) =>
    until(
      () =>
        spawnSync(
          'busctl',
          ['--user', 'call', 'org.freedesktop.DBus', '/', 'org.freedesktop.DBus', 'NameHasOwner', 's', name],
          { env: this.env, encoding: 'utf8' },
        ).stdout?.includes('true'),
    );

  async #start(colour, size, chooser, screencopy) {
    for (const name of ['run', 'home', 'config', 'log', 'data', 'state', 'sway'])
      fs.mkdirSync(this.#at(name), { mode: 0o700 });
    this.env = {
      PATH: process.env.PATH,
      HOME: this.#at('home'),
      XDG_RUNTIME_DIR: this.#at('run'),
      XDG_CONFIG_HOME: this.#at('config'),
      XDG_DATA_HOME: this.#at('data'),
      XDG_STATE_HOME: this.#at('state'),
      XDG_CURRENT_DESKTOP: 'sway',
      XDG_SESSION_TYPE: 'wayland',
      GIO_USE_VFS: 'local',
      GSETTINGS_BACKEND: 'memory',
      DBUS_SESSION_BUS_ADDRESS: `unix:path=${this.#at('run', 'bus')}`,
    };
    await this.#startBus();
    await this.#startCompositor(colour, size);
    this.#run('pipewire');
    await until(() => fs.existsSync(this.#at('run', 'pipewire-0')));
    this.#run('wireplumber');
    // Without it no stream gets its source.
    await until(() => spawnSync('wpctl', ['status'], { env: this.env, encoding: 'utf8' }).stdout?.includes('WirePlumber ['));
    await this.#startPortal(chooser, screencopy);
  }

  async #startBus() {
    // Without folders of services: nothing is started that isn't started here.
    fs.writeFileSync(
      this.#at('bus.conf'),
      `<busconfig><type>session</type><listen>${this.env.DBUS_SESSION_BUS_ADDRESS}</listen><auth>EXTERNAL</auth>
       <policy context="default"><allow send_destination="*"/><allow receive_sender="*"/><allow own="*"/></policy>
       </busconfig>`,
    );
    this.#run('dbus-daemon', [`--config-file=${this.#at('bus.conf')}`, '--nofork', '--nopidfile']);
    await until(() => fs.existsSync(this.#at('run', 'bus')));
  }

  async #startCompositor(colour, size) {
    fs.writeFileSync(
      this.#at('sway.conf'),
      `xwayland disable\noutput HEADLESS-1 resolution ${size} position 0 0 bg ${colour} solid_color\nseat * hide_cursor 1\n`,
    );
    // It refuses to run as root: it alone runs as nobody then, in a folder of its own.
    const asNobody = [];
    if (process.getuid() === 0) {
      fs.chmodSync(this.folder, 0o711);
      fs.chownSync(this.#at('sway'), nobody, nobody);
      asNobody.push('--reuid', nobody, '--regid', nobody, '--clear-groups');
    }
    const env = {
      HOME: this.#at('sway'),
      XDG_RUNTIME_DIR: this.#at('sway'),
      WLR_BACKENDS: 'headless',
      WLR_RENDERER: 'pixman',
      WLR_LIBINPUT_NO_DEVICES: '1',
    };
    const inherit = ['--pdeathsig', 'KILL', 'sway', '-c', this.#at('sway.conf')];
    this.#run('setpriv', [...asNobody.map(String), ...inherit], env);
    this.env.WAYLAND_DISPLAY = this.#at('sway', 'wayland-1');
    await until(() => fs.existsSync(this.env.WAYLAND_DISPLAY));
  }

  async #startPortal(chooser, screencopy) {
    fs.mkdirSync(this.#at('config', 'xdg-desktop-portal-wlr'));
    const choice = chooser
      ? `chooser_type=simple\nchooser_cmd=${chooser}`
      : 'chooser_type=none\noutput_name=HEADLESS-1';
    fs.writeFileSync(
      this.#at('config', 'xdg-desktop-portal-wlr', 'config'),
      `[screencast]\nmax_fps=60\n${choice}\n`,
    );
    this.#run('/usr/libexec/xdg-permission-store');
    this.#run('/usr/libexec/xdg-desktop-portal-wlr', [], { LD_PRELOAD: screencopy });
    await this.#owns('org.freedesktop.impl.portal.desktop.wlr');
    this.#run('/usr/libexec/xdg-desktop-portal');
    await this.#owns('org.freedesktop.portal.Desktop');
  }

  /** Paints the background anew: a screen on which nothing moves may not show at all here. */
  paint(colour) {
    const socket = fs.readdirSync(this.#at('sway')).find((name) => name.startsWith('sway-ipc.'));
    const env = { ...this.env, SWAYSOCK: this.#at('sway', socket) };
    spawnSync('swaymsg', ['output', 'HEADLESS-1', 'bg', colour, 'solid_color'], { env });
  }

  async close() {
    for (const child of this.#children) {
      if (child.exitCode !== null || child.signalCode !== null) continue;
      child.kill('SIGKILL');
      await once(child, 'close');
    }
    fs.rmSync(this.folder, { recursive: true, force: true });
  }
}
