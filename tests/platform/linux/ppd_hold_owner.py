'''power-profiles-daemon stand-in whose holds die with their holder

dbusmock's own template keeps a hold after the program that took it is gone;
the real daemon drops it when the holder's bus connection closes, and puts the
profile back. This one does the same, and names each hold's holder under the
extra key "Sender" so a test can tell whose connection holds it.
'''

import dbus

BUS_NAME = 'net.hadess.PowerProfiles'
MAIN_OBJ = '/net/hadess/PowerProfiles'
MAIN_IFACE = 'net.hadess.PowerProfiles'
SYSTEM_BUS = True


def publish(self):
    holds = [dbus.Dictionary(h, signature='sv') for h in self.holds.values()]
    profile = holds[-1]['Profile'] if holds else self.chosen
    self.UpdateProperties(MAIN_IFACE, {
        'ActiveProfileHolds': dbus.Array(holds, signature='a{sv}'),
        'ActiveProfile': dbus.String(profile),
    })


@dbus.service.method(MAIN_IFACE, in_signature='sss', out_signature='u', sender_keyword='sender')
def HoldProfile(self, profile, reason, application_id, sender=None):
    self.cookie += 1
    self.holds[self.cookie] = {'Profile': profile, 'Reason': reason,
                               'ApplicationId': application_id, 'Sender': sender}
    publish(self)
    return dbus.UInt32(self.cookie)


@dbus.service.method(MAIN_IFACE, in_signature='u', out_signature='')
def ReleaseProfile(self, cookie):
    if self.holds.pop(int(cookie), None) is None:
        raise dbus.exceptions.DBusException('No hold with this cookie',
                                             name='org.freedesktop.DBus.Error.InvalidArgs')
    publish(self)


def load(mock, parameters):
    mock.cookie = 0
    mock.holds = {}
    mock.chosen = parameters.get('ActiveProfile', 'balanced')
    mock.AddProperties(MAIN_IFACE, dbus.Dictionary({
        'ActiveProfile': mock.chosen,
        'PerformanceDegraded': '',
        'Profiles': [dbus.Dictionary({'Profile': p, 'Driver': 'dbusmock'}, signature='sv')
                     for p in ('power-saver', 'balanced', 'performance')],
        'Actions': dbus.Array([], signature='s'),
        'ActiveProfileHolds': dbus.Array([], signature='a{sv}'),
    }, signature='sv'))

    def name_owner_changed(name, _old, new):
        if new or not name.startswith(':'):
            return
        gone = [c for c, h in mock.holds.items() if h['Sender'] == name]
        for cookie in gone:
            del mock.holds[cookie]
        if gone:
            mock.log(f'dropped {len(gone)} hold(s) of {name}')
            publish(mock)

    mock.connection.add_signal_receiver(name_owner_changed, signal_name='NameOwnerChanged',
                                        dbus_interface='org.freedesktop.DBus', path='/org/freedesktop/DBus')
