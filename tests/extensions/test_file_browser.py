"""The file browser's extension: its logic against a fake port, and its ports against a real client on a bus of its own.

Usage: test_file_browser.py FOLDER_OF_PROGRAMS
"""
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "extensions" / "nautilus"))
import tarnwell_file_browser as extension  # noqa: E402

BIN = ""
BUS = """<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/>
</policy></busconfig>"""


class ConversationTest(unittest.TestCase):
    def setUp(self):
        self.said, self.refreshed, self.pending = [], [], []
        self.answers = True
        self.talk = extension.Conversation(self.send, self.refreshed.append)

    def send(self, text, done):
        self.said.append(text)
        if self.answers:
            done(True)
        else:
            self.pending.append(done)

    def take(self):
        said, self.said = self.said, []
        return said

    def greet(self):
        self.talk.client_appeared()
        self.talk.received("hej:/m")
        self.take()

    def test_shows_what_the_client_says_of_what_is_shown(self):
        self.talk.shown("/m/S/early", 1)
        self.assertEqual(self.take(), [])
        self.talk.client_appeared()
        self.assertEqual(self.take(), ["hello:"])
        self.talk.received("hej:/m")
        self.assertEqual(self.refreshed, ["/m/S/early"], "asked for again, now that it is known to be of the drive")
        self.assertFalse(self.talk.shown("/mm/x", 1))
        self.assertFalse(self.talk.shown("/m", 1))
        self.assertTrue(self.talk.shown("/m/S/a", 1))
        self.assertTrue(self.talk.shown("/m/S/b", 2))
        self.assertTrue(self.talk.shown("/m/S/b", 3), "another item")
        self.assertFalse(self.talk.shown("/m/S/b", 3), "asked for again")
        self.assertEqual(self.take(), ["observe:/m/S", "badge:/m/S/a", "badge:/m/S/b"])

        self.refreshed.clear()
        for text in ("overlay(2):/m/S/a", "overlay(2):/m/S/a", "overlay(1):/m/S/other", "overlay(x):/m/S/b",
                     "overlay(9):/m/S/b", "nonsense", "", "hej:relative"):
            self.talk.received(text)
        self.assertEqual(self.refreshed, ["/m/S/a", "/m/S/b"], "only what is new")
        self.assertEqual(self.talk.emblem("/m/S/a"), "tarnwell-server")
        self.assertIsNone(self.talk.emblem("/m/S/b"), "a status of a later version")

        self.talk.hidden("/m/S/a", 1)
        self.talk.hidden("/m/S/b", 2)
        self.talk.hidden("/m/S/b", 2)
        self.assertEqual(self.take(), [])
        self.talk.hidden("/m/S/b", 3)
        self.assertEqual(self.take(), ["unobserve:/m/S"])
        self.assertIsNone(self.talk.emblem("/m/S/a"))

    def test_either_side_may_start_again(self):
        self.greet()
        self.talk.shown("/m/S/a", 1)
        self.talk.received("overlay(1):/m/S/a")
        self.take()
        self.refreshed.clear()
        self.talk.client_gone()
        self.assertEqual(self.refreshed, ["/m/S/a"], "its emblem goes with the client")
        self.assertIsNone(self.talk.emblem("/m/S/a"))
        self.talk.shown("/m/S/b", 1)
        self.talk.hidden("/m/S/b", 1)
        self.assertEqual(self.take(), [], "nobody is asked")
        self.assertEqual(self.talk.commands([("/m/S/a", False)]), [])
        self.talk.client_appeared()
        self.talk.received("hej:/m")
        self.assertEqual(self.take(), ["hello:", "observe:/m/S", "badge:/m/S/a"])

    def test_a_silent_client_costs_nothing(self):
        self.greet()
        self.answers = False
        for number in range(1000):
            self.talk.shown(f"/m/S/{number}", number)
        self.assertEqual(len(self.take()), extension.MOST_IN_FLIGHT)
        for done in self.pending:
            done(False)
        self.talk.shown("/m/S/more", 1)
        self.assertEqual(self.take(), [], "it is not asked again")
        self.answers = True
        self.talk.received("hej:/m")
        self.assertEqual(len(self.take()), 1002, "until it lives: the folder and each item")

    def test_follows_the_newest_folders_where_nothing_ever_goes(self):
        self.greet()
        for folder in ("old", "new"):
            for number in range(extension.MOST_FOLLOWED // 2 + 1):
                self.talk.shown(f"/m/{folder}/{number}", number)
        self.assertEqual([text for text in self.take() if "observe" in text],
                         ["observe:/m/old", "observe:/m/new", "unobserve:/m/old"])
        self.talk.hidden("/m/old/1", 1)
        self.assertTrue(self.talk.shown("/m/old/1", 1))
        self.assertEqual(self.take(), ["observe:/m/old", "badge:/m/old/1"])

    def test_commands_fit_the_selection(self):
        self.greet()
        for path, status in (("/m/S", 0), ("/m/S/kept", 4), ("/m/S/far", 2), ("/m/S/here", 1)):
            self.talk.shown(path, 1)
            self.talk.received(f"overlay({status}):{path}")
        self.take()
        for items, names in (
                ([], []),
                ([("/m", True)], []),
                ([("/m/S/far", False), ("/etc", True)], []),
                ([("/m/S", True)], ["shareashare", "togglesync", "download"]),
                ([("/m/S/kept", True)], ["createlink", "emaillink", "togglesync", "download"]),
                ([("/m/S/far", False)], ["createlink", "emaillink", "download"]),
                ([("/m/S/here", False)], ["createlink", "emaillink"]),
                ([("/m/S/far", False), ("/m/S/kept", True)], ["download"])):
            self.assertEqual([command.name for command in self.talk.commands(items)], names, items)
        self.assertTrue(self.talk.commands([("/m/S/kept", True)])[2].label.startswith("Do Not"))
        self.talk.execute(self.talk.commands([("/m/S/far", False), ("/m/S/kept", True)])[0])
        self.talk.execute(self.talk.background_commands("/m")[0])
        self.assertEqual(self.take(), ["downloadfile:/m/S/far", "downloadfolder:/m/S/kept", "newshare:/m"])
        self.assertEqual(self.talk.background_commands("/m/S"), [])


class ClientTest(unittest.TestCase):
    """A client without a log-in answers for an empty drive."""

    def setUp(self):
        try:
            from gi.repository import Gio, GLib
        except ImportError:
            self.skipTest("python3-gi is not installed")
        if not shutil.which("dbus-daemon"):
            self.skipTest("dbus-daemon is not installed")
        self.GLib, self.Gio = GLib, Gio
        self.folder = tempfile.mkdtemp(prefix="twx")
        self.addCleanup(shutil.rmtree, self.folder, ignore_errors=True)
        self.environment = dict(os.environ, HOME=self.folder, XDG_RUNTIME_DIR=self.folder, DISPLAY="",
                                **{"XDG_" + kind + "_HOME": self.folder + "/" + kind
                                   for kind in ("DATA", "CONFIG", "CACHE")})
        pathlib.Path(self.folder, "bus.conf").write_text(BUS)
        bus = self.start("dbus-daemon", "--nofork", "--nopidfile", "--print-address",
                         "--config-file=" + self.folder + "/bus.conf")
        self.environment["DBUS_SESSION_BUS_ADDRESS"] = bus.stdout.readline().decode().strip()
        os.environ.update(self.environment)

    def start(self, *command):
        process = subprocess.Popen(command, env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)

        def end():
            process.kill()
            process.communicate()
        self.addCleanup(end)
        return process

    def wait(self, done):
        """Runs the main loop until that holds."""
        context, end = self.GLib.MainContext.default(), time.monotonic() + 20
        while not done():
            self.assertLess(time.monotonic(), end, "not in time")
            while context.iteration(False):
                pass
            time.sleep(0.005)

    def test_talks_with_a_client_and_with_the_next(self):
        refreshed = []
        talk = extension.Conversation(lambda text, done: ports.send(text, done), refreshed.append)
        ports = extension.SessionPorts(talk.received, talk.client_appeared, talk.client_gone)
        program = BIN + "/tarnwell"
        subprocess.run([program, "settings", "set", "TWKeychainFile", self.folder + "/keys"], env=self.environment,
                       check=True)
        client = self.start(program, "--headless")
        drive = self.folder + "/Tarnwell"
        self.wait(lambda: talk.mount_path == drive)
        path = drive + "/S/a folder"
        talk.shown(path, 1)
        self.wait(lambda: path in refreshed)
        self.assertIsNone(talk.emblem(path))

        client.kill()
        client.wait()
        self.wait(lambda: not talk.commands([(path, True)]))
        refreshed.clear()
        self.start(program, "--headless")
        self.wait(lambda: path in refreshed)
        self.assertTrue(talk.commands([(path, True)]))


if __name__ == "__main__":
    BIN = sys.argv.pop(1)
    unittest.main()
