#!/usr/bin/python3
"""A private session bus with dbusmock's notification_daemon on it.

Prints the bus address, then for each line on stdin the Notify calls so far
as JSON [app, summary, body] lists ([app, icon, desktop-entry] for "icons").
With RUNTIME [NAME=VALUE...] the bus listens at RUNTIME/bus, as a login
session's does, with a systemd user manager holding NAME=VALUE... Ends with
stdin, taking the bus and the mock along.
"""
import json
import os
import signal
import subprocess
import sys

import dbus
import dbusmock

# The bus is our own child, so ending it is immediate (dbusmock's own bus
# forks away, and stopping it polls for seconds).
listen = ['--address=unix:path=' + sys.argv[1] + '/bus'] if len(sys.argv) > 1 else []
daemon = subprocess.Popen(['dbus-daemon', '--session', '--nofork', '--nopidfile', '--print-address=1'] + listen,
                          stdout=subprocess.PIPE)
os.environ['DBUS_SESSION_BUS_ADDRESS'] = daemon.stdout.readline().decode().strip()
mock, obj = dbusmock.DBusTestCase.spawn_server_template('notification_daemon', {}, stdout=subprocess.DEVNULL)
manager = None
if len(sys.argv) > 1:
    manager = dbusmock.DBusTestCase.spawn_server('org.freedesktop.systemd1', '/org/freedesktop/systemd1',
                                                 'org.freedesktop.systemd1.Manager', stdout=subprocess.DEVNULL)
    systemd = dbusmock.DBusTestCase.get_dbus().get_object('org.freedesktop.systemd1', '/org/freedesktop/systemd1')
    systemd.AddProperty('org.freedesktop.systemd1.Manager', 'Environment',
                        dbus.Array(sys.argv[2:], signature='s'), dbus_interface=dbusmock.MOCK_IFACE)
print(os.environ['DBUS_SESSION_BUS_ADDRESS'], flush=True)
mock_iface = dbus.Interface(obj, dbusmock.MOCK_IFACE)
# A terminated helper takes its bus and mock along, as at the end of input.
signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
try:
    for line in sys.stdin:
        calls = mock_iface.GetMethodCalls('Notify')
        if line.strip() == 'icons':
            shown = [[str(c[1][0]), str(c[1][2]), str(c[1][6].get('desktop-entry', ''))] for c in calls]
        else:
            shown = [[str(c[1][0]), str(c[1][3]), str(c[1][4])] for c in calls]
        print(json.dumps(shown), flush=True)
finally:
    for m in (mock, manager):
        if m:
            m.terminate()
            m.wait()
    daemon.terminate()
    daemon.wait()
