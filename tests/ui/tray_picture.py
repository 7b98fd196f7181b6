#!/usr/bin/python3
"""Draws a tray item the way a tray host shows it, for the README's picture:
reads the item's icon name, icon folder and DBusMenu layout from the
session bus and draws them into a PNG: a dark panel with the icon (a
symbolic icon recoloured to the panel's text, as GNOME Shell does) and the
menu open below it. The picture is composed as SVG and rasterised by
GdkPixbuf's SVG loader (librsvg), so no display is needed.

    tray_picture.py ITEM_BUS_NAME OUT.png

Needs DBUS_SESSION_BUS_ADDRESS. Prints "saved"."""
import base64
import os
import sys
from xml.sax.saxutils import escape

import dbus
import gi

gi.require_version("GdkPixbuf", "2.0")
from gi.repository import GdkPixbuf  # noqa: E402

ITEM = "org.kde.StatusNotifierItem"
MENU = "com.canonical.dbusmenu"
PANEL_BG, PANEL_FG = "#353535", "#eeeeec"
WIDTH, ROW, ICON = 440, 26, 22


def menu_rows(node, depth, out):
    _id, props, children = node
    if depth > 0:
        if str(props.get("type", "standard")) == "separator":
            out.append(("separator", "", False, True, depth))
        else:
            label = str(props.get("label", "")).replace("_", "")
            checked = str(props.get("toggle-type", "")) != "" and int(props.get("toggle-state", 0)) == 1
            submenu = str(props.get("children-display", "")) == "submenu"
            out.append(("item", label + ("  \u203a" if submenu else ""), checked, bool(props.get("enabled", True)),
                        depth))
    # Submenus are drawn opened, one level in.
    if depth < 2:
        for child in children:
            menu_rows(child, depth + 1, out)


def icon_file(theme_path, name):
    symbolic = name.endswith("-symbolic")
    folders = [os.path.join(theme_path, "hicolor", "symbolic" if symbolic else "scalable", "apps")]
    folders.append(os.path.expanduser("~/.local/share/icons/hicolor/" + ("symbolic" if symbolic else "scalable") + "/apps"))
    for folder in folders:
        path = os.path.join(folder, name + ".svg")
        if os.path.exists(path):
            return path, symbolic
    raise SystemExit("no icon file for " + name)


def icon_png(path, symbolic):
    svg = open(path, encoding="utf-8").read()
    if symbolic:
        # GTK's way of recolouring a symbolic icon for a host.
        at = svg.index(">", svg.index("<svg")) + 1
        svg = svg[:at] + "<style>rect,circle,path{fill:%s !important;}</style>" % PANEL_FG + svg[at:]
    loader = GdkPixbuf.PixbufLoader()
    loader.set_size(ICON, ICON)
    loader.write(svg.encode())
    loader.close()
    ok, data = loader.get_pixbuf().save_to_bufferv("png", [], [])
    return base64.b64encode(data).decode()


def main():
    name, out = sys.argv[1], sys.argv[2]
    bus = dbus.SessionBus()
    props = dbus.Interface(bus.get_object(name, "/StatusNotifierItem"), dbus.PROPERTIES_IFACE)
    icon = str(props.Get(ITEM, "IconName"))
    menu = dbus.Interface(bus.get_object(name, str(props.Get(ITEM, "Menu"))), MENU)
    _revision, layout = menu.GetLayout(0, -1, dbus.Array([], signature="s"))
    rows = []
    menu_rows(layout, 0, rows)

    png = icon_png(*icon_file(str(props.Get(ITEM, "IconThemePath")), icon))
    menu_top, menu_left = 36, 120
    body = []
    y = menu_top + 24
    for kind, label, checked, enabled, depth in rows:
        if kind == "separator":
            body.append('<rect x="%d" y="%d" width="%d" height="1" fill="#00000026"/>'
                        % (menu_left + 6, y - 14, WIDTH - menu_left - 20))
            y += 10
            continue
        x = menu_left + 30 + (18 if depth > 1 else 0)
        if checked:
            body.append('<circle cx="%d" cy="%d" r="3.5" fill="#2e3436"/>' % (x - 13, y - 4))
        body.append('<text x="%d" y="%d" fill="%s">%s</text>' % (x, y, "#2e3436" if enabled else "#8a8a8a",
                                                                 escape(label)))
        y += ROW
    height = y + 4
    parts = [
        '<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" font-family="DejaVu Sans" font-size="13">'
        % (WIDTH, height),
        '<rect width="100%%" height="100%%" fill="#d8dadc"/><rect width="100%%" height="30" fill="%s"/>' % PANEL_BG,
        '<text x="12" y="20" fill="%s">Thu 09:41</text>' % PANEL_FG,
        '<rect x="%d" y="2" width="26" height="26" rx="4" fill="#ffffff" fill-opacity="0.12"/>' % (WIDTH - 40),
        '<image x="%d" y="4" width="%d" height="%d" href="data:image/png;base64,%s"/>' % (WIDTH - 38, ICON, ICON, png),
        '<rect x="%d" y="%d" width="%d" height="%d" rx="7" fill="#fafafa" stroke="#00000040"/>'
        % (menu_left, menu_top, WIDTH - menu_left - 8, height - menu_top - 8),
    ] + body + ["</svg>"]
    svg = "".join(parts)
    loader = GdkPixbuf.PixbufLoader()
    loader.write(svg.encode())
    loader.close()
    loader.get_pixbuf().savev(out, "png", [], [])
    print("saved", flush=True)


if __name__ == "__main__":
    main()
