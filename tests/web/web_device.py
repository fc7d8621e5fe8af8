"""A device of its own for a test in Python: an empty store, tags in it, and kp-web that shows them.

Test programs are called with the paths of kp-web, kp and the folder of the page.
"""
import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

DEADLINE = 30  # seconds; nobody waits so long unless a test fails
KP_WEB, KP, PAGE = sys.argv[1:4]


def enter_namespace():
    """Starts the program anew with an empty /dev/shm and /run."""
    if os.environ.get("KP_PAGE_TEST") == "inside":
        return
    environment = dict(os.environ, KP_PAGE_TEST="inside")
    words = " ".join(f"'{word}'" for word in [sys.executable, os.path.abspath(sys.argv[0]), *sys.argv[1:]])
    script = (
        "mount -t tmpfs -o mode=0755 none /run && mount -t tmpfs -o mode=1777 none /dev/shm && "
        "mkdir -m 0777 /run/providers && exec " + words
    )
    user = [] if os.getuid() == 0 else ["--user", "--map-root-user"]
    os.execvpe("unshare", ["unshare", "--mount", *user, "sh", "-c", script], environment)


def put_all(records):
    """Writes tags as any program would, each a record with topic, value and type."""
    lines = "".join(json.dumps(record) + "\n" for record in records)
    subprocess.run(
        [KP, "set", "--batch"],
        input=lines.encode(),
        check=True,
        capture_output=True,
        timeout=DEADLINE,
    )


def put(topic, value, kind):
    """Writes one tag."""
    put_all([{"topic": topic, "type": kind, "value": value}])


def wait_for(condition):
    """Waits until the condition holds, and gives what it gave."""
    end = time.monotonic() + DEADLINE
    while True:
        with contextlib.suppress(Exception):
            result = condition()
            if result:
                return result
        if time.monotonic() > end:
            raise AssertionError("it did not come true: " + repr(condition))
        time.sleep(0.05)


class Device:
    """The server in a folder of its own, with a dictionary and further lines of configuration."""

    def __init__(self, dictionary, more=""):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="kp-page-"))
        (self.folder / "tags.d").mkdir()
        (self.folder / "tags.d/plant.toml").write_text(dictionary, encoding="utf-8")
        (self.folder / "kp-web.conf").write_text(
            f'listen = ["127.0.0.1:0"]\npage = "{PAGE}"\ndictionary = "{self.folder}/tags.d"\n{more}',
            encoding="utf-8",
        )
        with open(self.folder / "log", "w", encoding="utf-8") as log:
            self.server = subprocess.Popen([KP_WEB, "-c", self.folder / "kp-web.conf"], stderr=log)
        found = wait_for(lambda: re.search(r"listening on (\S+)\n", (self.folder / "log").read_text()))
        self.place = found[1]
        self.address = "http://" + self.place + "/"

    def end(self):
        """Ends the server, which has to leave in good order."""
        self.server.terminate()
        assert self.server.wait(DEADLINE) == 0
