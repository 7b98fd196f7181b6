'''A desktop portal that offers only GlobalShortcuts

Answers CreateSession and BindShortcuts with a Response signal on the
request object, as xdg-desktop-portal does, and offers Press(id) so a test
can stand in for the person pressing the bound keys: it emits Activated for
the session that bound them.
'''

import dbus
import dbusmock.mockobject
from gi.repository import GLib

BUS_NAME = 'org.freedesktop.portal.Desktop'
MAIN_OBJ = '/org/freedesktop/portal/desktop'
MAIN_IFACE = 'org.freedesktop.portal.GlobalShortcuts'
SYSTEM_BUS = False


def request_path(sender, token):
    return f'/org/freedesktop/portal/desktop/request/{sender[1:].replace(".", "_")}/{token}'


def respond(self, path, results):
    # After the call's own reply, as the real portal does.
    def emit():
        self.AddObject(path, 'org.freedesktop.portal.Request', {}, [])
        dbusmock.mockobject.objects[path].EmitSignal('org.freedesktop.portal.Request', 'Response', 'ua{sv}',
                                              [dbus.UInt32(0), dbus.Dictionary(results, signature='sv')])
        return False
    GLib.timeout_add(50, emit)
    return dbus.ObjectPath(path)


@dbus.service.method(MAIN_IFACE, in_signature='a{sv}', out_signature='o', sender_keyword='sender')
def CreateSession(self, options, sender=None):
    token = str(options.get('session_handle_token', 'session'))
    self.session = f'/org/freedesktop/portal/desktop/session/{sender[1:].replace(".", "_")}/{token}'
    self.log(f'CreateSession {self.session}')
    return respond(self, request_path(sender, str(options.get('handle_token', 'r1'))),
                   {'session_handle': dbus.String(self.session)})


@dbus.service.method(MAIN_IFACE, in_signature='oa(sa{sv})sa{sv}', out_signature='o', sender_keyword='sender')
def BindShortcuts(self, session, shortcuts, parent, options, sender=None):
    self.bound = [(str(s[0]), str(s[1].get('preferred_trigger', ''))) for s in shortcuts]
    self.log(f'BindShortcuts {session} {self.bound}')
    return respond(self, request_path(sender, str(options.get('handle_token', 'r2'))),
                   {'shortcuts': dbus.Array([], signature='(sa{sv})')})


@dbus.service.method(MAIN_IFACE, in_signature='s', out_signature='')
def Press(self, shortcut):
    self.EmitSignal(MAIN_IFACE, 'Activated', 'osta{sv}',
                    [dbus.ObjectPath(self.session), shortcut, dbus.UInt64(0), dbus.Dictionary({}, signature='sv')])


def load(mock, parameters):
    mock.session = '/'
    mock.bound = []
    mock.AddProperties(MAIN_IFACE, dbus.Dictionary({'version': dbus.UInt32(1)}, signature='sv'))
