"""A telephone: ModemManager with one call, played by dbusmock, on the bus of the environment.

Each line of standard input is a state of the call (ModemManager's number); a line that is written
tells that it was carried out.
"""
import os
import subprocess
import sys

import dbus

NAME = 'org.freedesktop.ModemManager1'
ROOT = '/org/freedesktop/ModemManager1'
CALL = ROOT + '/Call/0'
MOCK = 'org.freedesktop.DBus.Mock'

bus = dbus.bus.BusConnection(os.environ['DBUS_SYSTEM_BUS_ADDRESS'])
program = subprocess.Popen(
    [sys.executable, '-m', 'dbusmock', '--logfile', os.devnull, '--system', NAME, ROOT, NAME])
try:
    while not bus.name_has_owner(NAME):
        if program.poll() is not None:
            sys.exit('dbusmock ended')
    dbus.Interface(bus.get_object(NAME, ROOT), MOCK).AddObject(
        CALL, NAME + '.Call',
        {'State': dbus.Int32(0), 'Direction': dbus.Int32(1), 'Number': '+15550100'}, [])
    call = dbus.Interface(bus.get_object(NAME, CALL), MOCK)
    old = 0
    print('ready', flush=True)
    for line in sys.stdin:
        state = int(line)
        call.UpdateProperties(NAME + '.Call', {'State': dbus.Int32(state)})
        call.EmitSignal(NAME + '.Call', 'StateChanged', 'iiu',
                        [dbus.Int32(old), dbus.Int32(state), dbus.UInt32(0)])
        old = state
        print('done', flush=True)
finally:
    program.kill()
    program.wait()
