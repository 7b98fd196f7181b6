#!/usr/bin/python3
"""A private session bus with dbusmock's notification_daemon on it.

Prints the bus address as one line, then for every line on stdin prints the
Notify calls recorded so far as a JSON list of [app, summary, body] (for the
line "icons": [app, icon, desktop-entry hint]). Ends with stdin, taking the
bus and the mock with it.
"""
import json
import signal
import subprocess
import sys

import dbus
import dbusmock

dbusmock.DBusTestCase.start_session_bus()
address = dbusmock.DBusTestCase.get_dbus(system_bus=False)
mock, obj = dbusmock.DBusTestCase.spawn_server_template('notification_daemon', {}, stdout=subprocess.DEVNULL)
bus_address = __import__('os').environ['DBUS_SESSION_BUS_ADDRESS']
print(bus_address, flush=True)
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
    mock.terminate()
    mock.wait()
    dbusmock.DBusTestCase.stop_dbus(dbusmock.DBusTestCase.session_bus_pid)
