"""The file browser's half of the conversation with the Tarnwell client.

Texts "COMMAND:ARGUMENT" go both ways over two named ports of the session bus; the client's docs/file-browser.md
describes them. `Conversation` is the logic and knows neither a bus nor a file browser; `SessionPorts` is the bus.

Everything runs on the file browser's main loop and nothing waits. A client that is not there, or does not answer, is
not asked again before it shows that it lives.
"""
import collections
import os.path

LOCAL_PORT = "com.tarnwell.findertalkback"
REMOTE_PORT = "com.tarnwell.findertalk"
OBJECT_PATH = "/com/tarnwell/MessagePort"
INTERFACE = "com.tarnwell.MessagePort"
MESSAGE_ID = 1

LOCAL, ON_SERVER, IN_TRANSFER, KEPT, KEPT_IN_TRANSFER = 1, 2, 3, 4, 5
EMBLEMS = {
    LOCAL: "tarnwell-local",
    ON_SERVER: "tarnwell-server",
    IN_TRANSFER: "tarnwell-transfer",
    KEPT: "tarnwell-kept",
    KEPT_IN_TRANSFER: "tarnwell-kept-transfer",
}

# Sent and not acknowledged yet. More wait here instead of in the bus.
MOST_IN_FLIGHT = 32
# Seen before the client told where its drive is.
MOST_REMEMBERED = 5000
# Followed at once. A file browser may keep items long after it showed them: beyond this the oldest folders go.
MOST_FOLLOWED = 20000


class Command:
    """One entry of the context menu."""

    def __init__(self, name, label, texts):
        self.name, self.label, self.texts = name, label, texts


class Conversation:
    """What is shown of the drive, and what the client says of it.

    `send(text, done)` passes a text on and calls `done(bool)` later; `refresh(path)` has the file browser ask again
    for the emblem of a path.
    """

    def __init__(self, send, refresh):
        self._send, self._refresh = send, refresh
        self.mount_path = None
        self._statuses = {}
        self._shown = {}  # paths in the drive, with the items that show them
        self._folders = {}  # their folders, with the paths; the oldest first
        self._early = set()
        self._waiting = collections.deque()
        self._in_flight = 0
        self._listening = False

    # The client

    def client_appeared(self):
        """The client, or a new one, can be talked to."""
        self._listening = True
        self._waiting.clear()
        self._say("hello", "")

    def client_gone(self):
        self._listening = False
        self._waiting.clear()
        self._forget_statuses()

    def received(self, text):
        command, colon, path = text.partition(":")
        if not colon:
            return
        if not self._listening:
            self._listening = True  # it was silent, and lives
        if command == "hej":
            self._greeted(path)
        elif command.startswith("overlay(") and command.endswith(")") and command[8:-1].isdigit():
            self._set_status(path, int(command[8:-1]))

    def _greeted(self, mount_path):
        if not os.path.isabs(mount_path):
            return
        moved = mount_path != self.mount_path
        self.mount_path = mount_path.rstrip("/") or "/"
        if moved:
            self._shown.clear()
            self._folders.clear()
            self._forget_statuses()
        early, self._early = self._early, set()
        for path in early:
            if self.is_on_drive(path):
                self._refresh(path)
        for folder in self._folders:
            self._say("observe", folder)
        for path in self._shown:
            self._say("badge", path)

    def _set_status(self, path, status):
        if path not in self._shown or self._statuses.get(path) == status:
            return
        self._statuses[path] = status
        self._refresh(path)

    def _forget_statuses(self):
        paths, self._statuses = list(self._statuses), {}
        for path in paths:
            self._refresh(path)

    # The file browser

    def is_on_drive(self, path):
        return self.mount_path is not None and path.startswith(self.mount_path + "/")

    def shown(self, path, item):
        """An item of the file browser shows the path. True when this is news: `hidden` is to follow when it goes."""
        if not self.is_on_drive(path):
            if self.mount_path is None and len(self._early) < MOST_REMEMBERED:
                self._early.add(path)
            return False
        if path in self._shown:
            known = item in self._shown[path]
            self._shown[path].add(item)
            return not known
        self._shown[path] = {item}
        folder = os.path.dirname(path)
        if folder not in self._folders:
            self._folders[folder] = set()
            self._say("observe", folder)
        self._folders[folder].add(path)
        self._say("badge", path)
        while len(self._shown) > MOST_FOLLOWED and len(self._folders) > 1:
            self._drop_folder(next(iter(self._folders)))
        return True

    def hidden(self, path, item):
        items = self._shown.get(path, set())
        items.discard(item)
        if items or path not in self._shown:
            return
        folder = os.path.dirname(path)
        del self._shown[path]
        self._statuses.pop(path, None)
        self._folders[folder].discard(path)
        if not self._folders[folder]:
            self._drop_folder(folder)

    def _drop_folder(self, folder):
        for path in self._folders.pop(folder):
            del self._shown[path]
            self._statuses.pop(path, None)
        self._say("unobserve", folder)

    def emblem(self, path):
        return EMBLEMS.get(self._statuses.get(path))

    # The context menu

    def commands(self, items):
        """Entries for a selection: pairs of path and whether it is a folder."""
        if not items or not self._listening or not all(self.is_on_drive(path) for path, _ in items):
            return []
        entries = []
        if len(items) == 1:
            entries += self._commands_for_one(*items[0])
        wanted = [("downloadfolder" if is_folder else "downloadfile") + ":" + path for path, is_folder in items
                  if is_folder or self._statuses.get(path) in (None, ON_SERVER)]
        if wanted:
            entries.append(Command("download", "Download", wanted))
        return entries

    def _commands_for_one(self, path, is_folder):
        is_share = os.path.dirname(path) == self.mount_path
        if not is_share:
            yield Command("createlink", "Copy Public Link", ["createlink:" + path])
            yield Command("emaillink", "E-Mail Public Link…", ["emaillink:" + path])
        elif is_folder:
            yield Command("shareashare", "Share This…", ["shareashare:" + path])
        if is_folder:
            kept = self._statuses.get(path) in (KEPT, KEPT_IN_TRANSFER)
            label = "Do Not Keep on This Computer" if kept else "Keep on This Computer"
            yield Command("togglesync", label, ["togglesync:" + path])

    def background_commands(self, folder):
        if not self._listening or self.mount_path is None or folder != self.mount_path:
            return []
        return [Command("newshare", "New Share…", ["newshare:" + folder])]

    def execute(self, command):
        for text in command.texts:
            self._say(*text.split(":", 1))

    # Sending

    def _say(self, command, path):
        if not self._listening:
            return
        self._waiting.append(command + ":" + path)
        self._send_waiting()

    def _send_waiting(self):
        while self._waiting and self._in_flight < MOST_IN_FLIGHT:
            self._in_flight += 1
            self._send(self._waiting.popleft(), self._sent)

    def _sent(self, succeeded):
        self._in_flight -= 1
        if not succeeded:
            # It is stuck or gone. It will greet, or appear anew, and is then told everything again.
            self._listening = False
            self._waiting.clear()
        self._send_waiting()


class SessionPorts:
    """The two ports on the session bus. Texts that come in go to `received`; `appeared` and `gone` tell of the client
    once this end can be answered, too."""

    XML = """<node><interface name="com.tarnwell.MessagePort"><method name="Send">
             <arg name="id" type="i" direction="in"/><arg name="bytes" type="ay" direction="in"/>
             </method></interface></node>"""
    DEADLINE_MS = 5000

    def __init__(self, received, appeared, gone):
        from gi.repository import Gio, GLib
        self._gio, self._glib = Gio, GLib
        self._received, self._appeared, self._gone = received, appeared, gone
        self._connection = None
        self._client = None
        self._named = False
        Gio.bus_get(Gio.BusType.SESSION, None, self._connected)

    def _connected(self, _source, result):
        gio = self._gio
        try:
            self._connection = gio.bus_get_finish(result)
            interface = gio.DBusNodeInfo.new_for_xml(self.XML).interfaces[0]
            self._connection.register_object(OBJECT_PATH, interface, self._called, None, None)
        except self._glib.Error:
            return  # no session bus: no client to talk to
        # A second file browser waits in line for the name, and takes over when the first ends.
        gio.bus_own_name_on_connection(self._connection, LOCAL_PORT, gio.BusNameOwnerFlags.NONE,
                                       self._name_acquired, self._name_lost)
        gio.bus_watch_name_on_connection(self._connection, REMOTE_PORT, gio.BusNameWatcherFlags.NONE,
                                         self._client_appeared, self._client_vanished)

    def _name_acquired(self, _connection, _name):
        self._named = True
        if self._client:
            self._appeared()

    def _name_lost(self, _connection, _name):
        if self._named and self._client:
            self._gone()
        self._named = False

    def _client_appeared(self, _connection, _name, owner):
        self._client = owner
        if self._named:
            self._appeared()

    def _client_vanished(self, _connection, _name):
        self._client = None
        self._gone()

    def _called(self, _connection, sender, _path, _interface, _method, parameters, invocation):
        invocation.return_value(None)
        message_id, data = parameters.get_child_value(0).get_int32(), parameters.get_child_value(1)
        if message_id != MESSAGE_ID or sender != self._client:
            return
        try:
            text = data.get_data_as_bytes().get_data().decode("utf-8")
        except UnicodeDecodeError:
            return
        self._received(text)

    def send(self, text, done):
        try:
            arguments = self._glib.Variant("(iay)", (MESSAGE_ID, text.encode("utf-8")))
        except UnicodeEncodeError:
            # A name that is no text: nothing of the drive has one.
            self._glib.idle_add(done, True)
            return
        if not self._client:
            self._glib.idle_add(done, False)
            return

        def finished(connection, result):
            try:
                connection.call_finish(result)
            except self._glib.Error:
                return done(False)
            return done(True)

        self._connection.call(self._client, OBJECT_PATH, INTERFACE, "Send", arguments, None,
                              self._gio.DBusCallFlags.NO_AUTO_START, self.DEADLINE_MS, None, finished)
