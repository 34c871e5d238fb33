#!/usr/bin/python3
"""Works the program as somebody does who cannot see it: through the accessibility bus, by names alone.

   accessible.py PROGRAM    on a desktop of its own, with_desktop.sh
"""

import contextlib
import http.server
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import threading
import time

import pyatspi
from gi.repository import GLib

PATIENCE_SECS = 30  # only a run that fails waits for so long
SERVER = pathlib.Path(__file__).parent / "support" / "pyftpd_server.py"
CONTENT = {"table cell", "list item"}  # not controls: these have the texts of what they show


class Failure(Exception):
    pass


def check(is_so, what):
    if not is_so:
        raise Failure(what)


def awaited(what, probe):
    """The first true answer of the probe. What vanishes while it is looked at is looked at anew."""
    end = time.monotonic() + PATIENCE_SECS
    while time.monotonic() < end:
        with contextlib.suppress(GLib.Error, LookupError):
            answer = probe()
            if answer:
                return answer
        time.sleep(0.02)
    raise Failure("in vain: " + what)


def below(accessible):
    for child in accessible:
        if child:
            yield child
            yield from below(child)


def has(accessible, state):
    return accessible.getState().contains(state)


def name_of(accessible):
    """As it is read out: a combo box has its value for a name, and a label that tells what it is."""
    if accessible.getRoleName() != "combo box":
        return accessible.name
    for relation in accessible.getRelationSet():
        if relation.getRelationType() == pyatspi.RELATION_LABELLED_BY:
            return relation.getTarget(0).name
    return ""


def is_heading_of_tabs(accessible):
    return accessible.getRoleName() == "page tab list"  # called by its current tab, always


def check_distinct(names, where):
    check(all(name.strip() for name in names), f"a nameless one in {where}: {names}")
    twice = sorted({name for name in names if names.count(name) > 1})
    check(not twice, f"more than one in {where} is called {twice}")


class Program:
    def __init__(self, path, home):
        environment = dict(os.environ, HOME=home, XDG_CONFIG_HOME=home, QT_LINUX_ACCESSIBILITY_ALWAYS_ON="1")
        self.process = subprocess.Popen([path], env=environment)
        self.top = None
        self.top = awaited("the program", self.application)

    def application(self):
        desktop = pyatspi.Registry.getDesktop(0)
        desktop.clear_cache()
        return next((each for each in desktop if each and each.name == "Kelpwharf" and each.childCount), None)

    def windows(self, role, title):
        self.top.clear_cache()
        return [each for each in self.top
                if each and each.getRoleName() == role and each.name == title and has(each, pyatspi.STATE_SHOWING)]

    def window(self, role, title):
        return awaited(f"the {role} '{title}'", lambda: (self.windows(role, title) or [None])[0])

    def no_window(self, role, title):
        awaited(f"the end of the {role} '{title}'", lambda: not self.windows(role, title))

    def end(self):
        self.process.send_signal(signal.SIGTERM)
        check(self.process.wait(PATIENCE_SECS) == 0, "the program did not end well")


class Window:
    """One window or dialog, whose parts are found by their names."""

    def __init__(self, program, role, title):
        self.program, self.role, self.title = program, role, title
        self.accessible = program.window(role, title)

    def shown(self, role):
        self.accessible.clear_cache()
        return [each for each in below(self.accessible)
                if each.getRoleName() == role and has(each, pyatspi.STATE_SHOWING)]

    def part(self, role, name):
        def only_one():
            found = [each for each in self.shown(role) if name_of(each) == name]
            return found[0] if len(found) == 1 else None
        return awaited(f"the {role} '{name}' in '{self.title}'", only_one)

    def act(self, role, name, action):
        def acted():
            actions = self.part(role, name).queryAction()
            names = [actions.getName(i) for i in range(actions.nActions)]
            return action in names and actions.doAction(names.index(action))
        awaited(f"that '{name}' can be used", acted)

    def press(self, button):
        self.act("push button", button, "Press")

    def turn_to(self, page):
        self.act("page tab", page, "Press")
        self.part("page tab list", page)

    def write(self, field, text, role="text"):
        self.part(role, field).queryEditableText().setTextContents(text)

    def read(self, field):
        return self.part("text", field).queryText().getText(0, -1)

    def label(self):
        return "\n".join(each.name for each in self.shown("label"))

    def check_names(self, expected):
        """Each control in sight has a name of its own, and those expected are among them."""
        self.accessible.clear_cache()
        controls = [each for each in below(self.accessible)
                    if has(each, pyatspi.STATE_FOCUSABLE) and has(each, pyatspi.STATE_SHOWING)
                    and each.getRoleName() not in CONTENT and not is_heading_of_tabs(each)]
        names = [name_of(each) for each in controls]
        check_distinct(names, f"'{self.title}'")
        missing = set(expected) - set(names)
        check(not missing, f"'{self.title}' has no {sorted(missing)} among {names}")

    def closes(self):
        self.program.no_window(self.role, self.title)


class MainWindow(Window):
    def __init__(self, program):
        super().__init__(program, "frame", "Kelpwharf")

    def cell(self, job, column):
        """A cell's text by the name of the job and the name of the column."""
        return self.cell_itself(job, column).name

    def cell_itself(self, job, column):
        table = self.part("table", "Jobs").queryTable()
        columns = {table.getColumnHeader(i).name: i for i in range(table.nColumns)}
        for row in range(table.nRows):
            if table.getAccessibleAt(row, columns["Job"]).name == job:
                found = table.getAccessibleAt(row, columns[column])
                found.clear_cache()  # no part that is forgotten with the window's
                return found
        raise LookupError(job)

    def key(self, *names):
        subprocess.run(["wmctrl", "-F", "-a", self.title], check=True)  # no dialog hands it back by itself
        awaited("that the window is active", lambda: asked("xdotool", "getactivewindow", "getwindowname") == self.title)
        subprocess.run(["xdotool", "key", *names], check=True)

    def select(self, job):
        self.act("table cell", job, "Toggle")
        awaited(f"that '{job}' is selected", lambda: has(self.cell_itself(job, "Job"), pyatspi.STATE_SELECTED))

    def check_menus(self):
        bar = self.shown("menu bar")[0]
        check_distinct([menu.name for menu in bar], "the menu bar")
        for menu in bar:
            entries = [each.name for each in below(menu) if each.getRoleName() == "menu item"]
            check(len(entries) >= 3, f"the menu '{menu.name}' is empty")
            check_distinct(entries, f"the menu '{menu.name}'")

    def check_table(self, job):
        headers = [each.name for each in self.shown("table column header")]
        check(len(headers) == 7, f"columns: {headers}")
        check_distinct(headers, "the table's header")
        check_distinct([self.cell(job, column) for column in headers], f"the row of '{job}'")


def asked(*command):
    return subprocess.run(command, check=False, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                          text=True).stdout.strip()


@contextlib.contextmanager
def ftp_server(folder):
    root = pathlib.Path(folder, "served")
    (root / "talks" / "more").mkdir(parents=True)
    (root / "talks" / "one.mp3").write_text("one")
    (root / "talks" / "more" / "two.mp3").write_text("two")
    command = ["/usr/bin/python3", SERVER, "--root", root, "--user", "kim", "--password", "secret",
               "--log", f"{folder}/server.log"]
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True) as process:
        try:
            yield int(process.stdout.readline().split()[1])
        finally:
            process.kill()


@contextlib.contextmanager
def update_service():
    class Answer(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            body = json.dumps({"latest_version": "9.0.0", "notes": "New things.", "notes_url": "https://127.0.0.1/notes",
                               "download_url": "https://127.0.0.1/"}).encode()
            self.send_response(200)
            self.send_header("Content-Length", str(len(body)))
            self.end_headers()
            self.wfile.write(body)

        def log_message(self, *_):
            pass

    with http.server.HTTPServer(("127.0.0.1", 0), Answer) as server:
        thread = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.05})
        thread.start()
        try:
            yield server.server_address[1]
        finally:
            server.shutdown()
            thread.join()


def write_settings(home, update_port):
    folder = pathlib.Path(home, "Orrinvale")
    folder.mkdir()
    (folder / "Kelpwharf.ini").write_text(
        "[General]\ncheckForUpdates=false\n"
        f"updateEndpoint=http://127.0.0.1:{update_port}/\n"
        "[jobs]\nsize=1\n1\\name=Morning news\n1\\host=127.0.0.1\n"
        f"1\\localDir={home}/news\n")


def look_around(window):
    window.check_names(["Jobs", "Add", "Edit", "Remove", "Test", "Sync Now", "Stop", "Auto", "Log"])
    words = window.part("filler", "Status panel").description
    check("AUTO is off." in words and "MORNING NEWS" in words, f"the panel says: {words}")
    window.check_menus()
    window.check_table("Morning news")


def add_a_job(program, window, port, local):
    window.press("Add")
    editor = Window(program, "dialog", "Synchronisation job")
    buttons = ["OK", "Cancel", "Job name:", "Enabled", "Server", "Folders", "Sync", "Schedule"]
    editor.check_names([*buttons, "Host:", "Port:", "Username:", "Password:", "Use explicit FTPS (AUTH TLS)",
                        "Timeout:"])
    editor.write("Job name:", "Evening talks")
    editor.write("Host:", "127.0.0.1")
    editor.part("spin button", "Port:").queryValue().currentValue = port
    editor.write("Username:", "kim")
    editor.write("Password:", "secret", "password text")

    editor.turn_to("Folders")
    editor.check_names([*buttons, "Remote folder:", "Local folder:", "Choose the local folder", "Exclude:",
                        "Include sub-folders"])
    editor.write("Remote folder:", "/talks")
    editor.write("Local folder:", local)

    editor.turn_to("Sync")
    editor.check_names([*buttons, "Transfer:", "Compare by:",
                        "Delete local files that no longer exist on the server"])

    editor.turn_to("Schedule")
    editor.act("radio button", "At set times", "Toggle")
    editor.act("push button", "Edit...", "Press")
    rule = Window(program, "dialog", "Schedule")
    rule.check_names(["Mon", "Sun", "Days: All", "Days: Mon-Fri", "Hours: All", "Hours: None", "Hours: 06",
                      "Minutes past the hour:", "OK", "Cancel"])
    rule.press("Days: Mon-Fri")
    rule.write("Minutes past the hour:", "30")
    rule.press("OK")
    rule.closes()
    editor.check_names([*buttons, "Every", "At set times", "Schedules", "Add...", "Edit..."])
    editor.press("OK")
    editor.closes()
    awaited("the new job", lambda: window.cell("Evening talks", "Server") == f"kim@127.0.0.1:{port}")


def test_and_run(program, window, local):
    window.select("Morning news")
    window.select("Evening talks")
    window.press("Test")
    answer = Window(program, "alert", "Kelpwharf")
    answer.check_names(["OK"])
    check("Connected. '/talks' contains 2 item(s)." in answer.label(), answer.label())
    answer.press("OK")
    answer.closes()

    window.press("Sync Now")
    awaited("the result", lambda: window.cell("Evening talks", "Last result").endswith(
        "2 NEW · 0 SAME · 0 DEL · 0 FAIL · 6 B"))
    check(window.cell("Morning news", "Last result") == "never run", "the wrong job was run")
    check(pathlib.Path(local, "more", "two.mp3").read_text() == "two", "the file is not the server's")
    check("[Evening talks] Complete - 2 downloaded, 0 unchanged, 0 deleted." in window.read("Log"),
          window.read("Log"))


def switch_off(window):
    check(has(window.cell_itself("Evening talks", "Enabled"), pyatspi.STATE_CHECKED), "the job is not enabled")
    window.part("table", "Jobs").queryComponent().grabFocus()
    window.key("Home")
    awaited("the focus", lambda: has(window.part("table cell", "Enable Evening talks"), pyatspi.STATE_FOCUSED))
    window.key("space")
    awaited("that the job is off",
            lambda: not has(window.cell_itself("Evening talks", "Enabled"), pyatspi.STATE_CHECKED))
    check(window.cell("Evening talks", "Next run") == "disabled", "the row does not say so")
    check("'Evening talks' disabled." in window.read("Log"), window.read("Log"))


def visit_other_dialogs(program, window):
    window.press("Remove")
    question = Window(program, "alert", "Kelpwharf")
    question.check_names(["Yes", "No"])
    question.press("No")
    question.closes()

    # By the bus an entry would have no answer until its dialog is closed.
    window.key("alt+h", "a")
    about = Window(program, "dialog", "About Kelpwharf")
    about.check_names(["OK"])
    about.press("OK")
    about.closes()

    window.key("alt+h", "u")
    update = Window(program, "dialog", "Update available")
    update.check_names(["Release notes", "Remind Me Later", "Skip This Version", "Download..."])
    update.press("Remind Me Later")
    update.closes()


def main():
    with tempfile.TemporaryDirectory() as home, update_service() as update_port, ftp_server(home) as port:
        write_settings(home, update_port)
        local = str(pathlib.Path(home, "talks"))
        os.mkdir(local)
        program = Program(sys.argv[1], home)
        try:
            window = MainWindow(program)
            look_around(window)
            add_a_job(program, window, port, local)
            test_and_run(program, window, local)
            switch_off(window)
            visit_other_dialogs(program, window)
            program.end()
        except Failure as failure:
            print("FAIL:", failure)
            return 1
        finally:
            program.process.kill()
            program.process.wait()
    return 0


if __name__ == "__main__":
    sys.exit(main())
