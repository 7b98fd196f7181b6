#!/usr/bin/python3
"""A stand-in for the desktop's tray host on a private session bus: owns
org.kde.StatusNotifierWatcher and prints "registered NAME" for each item that
registers, so a test can wait for the line. An argument names the process
as that tray host would be named (for example gnome-shell)."""
import ctypes
import sys

import dbus
import dbus.service
from dbus.mainloop.glib import DBusGMainLoop
from gi.repository import GLib

WATCHER = "org.kde.StatusNotifierWatcher"


class Watcher(dbus.service.Object):
    def __init__(self, bus):
        self.items = []
        super().__init__(dbus.service.BusName(WATCHER, bus), "/StatusNotifierWatcher")

    @dbus.service.method(WATCHER, in_signature="s", out_signature="", sender_keyword="sender")
    def RegisterStatusNotifierItem(self, service, sender=None):
        self.items.append(str(service))
        print("registered", service, "from", sender, flush=True)
        self.StatusNotifierItemRegistered(service)

    @dbus.service.method(WATCHER, in_signature="s", out_signature="")
    def RegisterStatusNotifierHost(self, service):
        pass

    @dbus.service.signal(WATCHER, signature="s")
    def StatusNotifierItemRegistered(self, service):
        pass

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="ss", out_signature="v")
    def Get(self, interface, name):
        return self.GetAll(interface)[name]

    @dbus.service.method(dbus.PROPERTIES_IFACE, in_signature="s", out_signature="a{sv}")
    def GetAll(self, interface):
        return {
            "RegisteredStatusNotifierItems": dbus.Array(self.items, signature="s"),
            "IsStatusNotifierHostRegistered": True,
            "ProtocolVersion": dbus.Int32(0),
        }


if len(sys.argv) > 1:
    PR_SET_NAME = 15
    ctypes.CDLL(None).prctl(PR_SET_NAME, sys.argv[1].encode(), 0, 0, 0)
DBusGMainLoop(set_as_default=True)
watcher = Watcher(dbus.SessionBus())
print("watching", flush=True)
GLib.MainLoop().run()
