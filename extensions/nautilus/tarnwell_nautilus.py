"""Tarnwell in the file browser: emblems on the items of the drive, and its commands in the context menu.

For Nautilus, and for Nemo and Caja, whose extensions have the same form.
"""
from gi.repository import GObject

from tarnwell_file_browser import Conversation, SessionPorts


def _host():
    """The module of the file browser that this runs in: another one's would bring its libraries along."""
    with open("/proc/self/comm", encoding="utf-8") as file:
        name = file.read().strip().lower()
    if name.startswith("nemo"):
        from gi.repository import Nemo as host
    elif name.startswith("caja"):
        from gi.repository import Caja as host
    else:
        from gi.repository import Nautilus as host
    return host


Host = _host()


def _path_of(file):
    """The local path of an item; None for what is elsewhere, or has a name that is no text."""
    if file.get_uri_scheme() != "file":
        return None
    path = file.get_location().get_path()
    if path is None:
        return None
    try:
        path.encode("utf-8")
    except UnicodeEncodeError:
        return None
    return path


class TarnwellExtension(GObject.GObject, Host.InfoProvider, Host.MenuProvider):
    def __init__(self):
        super().__init__()
        self._conversation = Conversation(self._send, self._refresh)
        self._ports = SessionPorts(self._conversation.received, self._conversation.client_appeared,
                                   self._conversation.client_gone)

    def _send(self, text, done):
        self._ports.send(text, done)

    def _refresh(self, path):
        from gi.repository import Gio
        file = Host.FileInfo.lookup(Gio.File.new_for_path(path))
        if file is not None:
            file.invalidate_extension_info()

    def update_file_info(self, file):
        path = _path_of(file)
        if path is None:
            return
        key = hash(file)  # its address: an item that is gone makes room for another
        if self._conversation.shown(path, key):
            file.weak_ref(self._conversation.hidden, path, key)
        emblem = self._conversation.emblem(path)
        if emblem:
            file.add_emblem(emblem)

    # Some versions put the window before the items.
    def get_file_items(self, *arguments):
        items = [(_path_of(file), file.is_directory()) for file in arguments[-1]]
        if any(path is None for path, _ in items):
            return []
        return self._menu(self._conversation.commands(items))

    def get_background_items(self, *arguments):
        path = _path_of(arguments[-1])
        return self._menu(self._conversation.background_commands(path)) if path else []

    def _menu(self, commands):
        if not commands:
            return []
        top = Host.MenuItem(name="Tarnwell::menu", label="Tarnwell", tip="", icon="")
        menu = Host.Menu()
        top.set_submenu(menu)
        for command in commands:
            item = Host.MenuItem(name="Tarnwell::" + command.name, label=command.label, tip="", icon="")
            item.connect("activate", self._activated, command)
            menu.append_item(item)
        return [top]

    def _activated(self, _item, command):
        self._conversation.execute(command)
