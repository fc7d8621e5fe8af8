#!/usr/bin/env python3
"""What is served against its description, openapi.json: api_test.py KP-WEB KP PAGE-FOLDER

Every address, method and status of the description has to be met, and nothing else may be; every
answer must have the kind and the keys that stand there. Asks with Python's own HTTP client. Runs in
a mount namespace of its own, with a store of its own.
"""
import contextlib
import http.client
import json
import os
import pathlib
import subprocess
import sys
import unittest

from web_device import PAGE, Device, enter_namespace, put_all

SKIPPED = 77

enter_namespace()
try:
    import jsonschema
except ImportError:
    print("api_test.py: Skipped\npython3-jsonschema is not installed")
    sys.exit(SKIPPED)

DOCUMENT = json.loads(pathlib.Path(PAGE, "openapi.json").read_text(encoding="utf-8"))
SPEED = "/tags/plant/press/speed"
TOKEN = "0123456789abcdef-secret"
OTHER_TOKEN = "another-secret-0123456789"
DICTIONARY = """
["plant/press/speed"]
unit = "m/s"
description = "Speed of the press"
range = [0, 40]
limits = { low = 1.0, high = 30.0 }
stale = 5
["plant/press/mode"]
names = { 0 = "stopped", 1 = "running" }
"""
ANSWERED_IN_PIECES = {"/watch"}  # never ends, so its answer is read up to a word


def resolved(node):
    """The node that a reference leads to, or the node itself."""
    while "$ref" in node:
        place = DOCUMENT
        for name in node["$ref"].removeprefix("#/").split("/"):
            place = place[name]
        node = place
    return node


def documented():
    """Every (path, method, status) of the description."""
    return {
        (path, method, int(status))
        for path, methods in DOCUMENT["paths"].items()
        for method, operation in methods.items()
        if method != "parameters"
        for status in operation["responses"]
    }


def paths_with(method):
    return [path for path, methods in DOCUMENT["paths"].items() if method in methods]


def target_of(path):
    return SPEED if path == "/tags/{topic}" else path


class Answer:
    """The status, the headers and the text of an answer."""

    def __init__(self, server, method, target, headers=None, body=None, until=None):
        connection = http.client.HTTPConnection(server.place, timeout=30)
        with contextlib.closing(connection):
            connection.request(method, target, body=body, headers=headers or {})
            response = connection.getresponse()
            self.status = response.status
            self.headers = response.headers
            read = b""
            while until and until not in read:
                read += response.read1()
            self.text = (read if until else response.read()).decode("ascii")


def write(value, token=TOKEN, kind="application/json"):
    """The further arguments of a PUT."""
    headers = {"Authorization": "Bearer " + token} if token else {}
    headers["Content-Type"] = kind
    body = value if isinstance(value, str) else json.dumps(value)
    return {"headers": headers, "body": body}


class Api(unittest.TestCase):
    """One device, with a server that may write and one that only reads."""

    @classmethod
    def setUpClass(cls):
        put_all(
            [
                {"topic": "plant/press/speed", "type": "double", "value": 12.5},
                {"topic": "plant/press/mode", "type": "int32", "value": 1},
                {"topic": "plant/press/name", "type": "string", "value": "press"},
                {"topic": "plant/press/bytes", "type": "raw", "value": "00ff"},
                {"topic_b64": "cGxhbnQv/w==", "type": "float", "value": "nan"},
            ]
        )
        pathlib.Path("/dev/shm/zu-kp/plant/planted").write_text("no segment", encoding="ascii")
        rules = 'hide = ["plant/hidden/#"]\n'
        for name, token, topics in (("token", TOKEN, "plant/#"), ("other", OTHER_TOKEN, "other/#")):
            file = pathlib.Path("/run/" + name)
            file.touch(mode=0o600)
            file.write_text(token + "\n", encoding="ascii")
            rules += f'[[write]]\ntopics = ["{topics}"]\ntoken-file = "{file}"\n'
        cls.writer = Device(DICTIONARY, rules)
        cls.reader = Device(DICTIONARY, 'metrics = ["plant/#"]\n')
        cls.rules = rules
        cls.met = set()

    @classmethod
    def tearDownClass(cls):
        cls.writer.end()
        cls.reader.end()

    def ask(self, server, method, target, status, path=None, **more):
        """Asks, and holds the answer against the description."""
        answer = Answer(server, method, target, **more)
        self.assertEqual(answer.status, status, (method, target, answer.text))
        path = path or next(p for p in DOCUMENT["paths"] if target_of(p) == target.split("?")[0])
        self.met.add((path, method.lower(), status))
        operation = DOCUMENT["paths"][path][method.lower()]
        self.assertIn(str(status), operation["responses"], (method, target))
        self.check_answer(answer, resolved(operation["responses"][str(status)]))
        return answer

    def check_answer(self, answer, described):
        for name in described.get("headers", {}):
            self.assertIn(name, answer.headers)
        ((kind, content),) = described["content"].items()
        self.assertEqual(answer.headers["Content-Type"].split(";")[0], kind)
        if kind == "application/x-ndjson":
            for line in answer.text.splitlines():
                self.check_value(json.loads(line), content["schema"])
        elif kind == "application/json":
            self.check_value(json.loads(answer.text), content["schema"])
        else:
            self.check_value(answer.text, content["schema"])

    @staticmethod
    def check_value(value, schema):
        whole = {**schema, "components": DOCUMENT["components"]}
        jsonschema.Draft202012Validator(whole).validate(value)

    def until(self, path):
        return b"event: current" if path in ANSWERED_IN_PIECES else None

    def look_at_everything(self):
        for path in paths_with("get"):
            target = target_of(path)
            for server in (self.reader, self.writer):
                answer = self.ask(server, "GET", target, 200, until=self.until(path))
                self.assertTrue(answer.text, target)
                head = Answer(server, "HEAD", target)
                self.assertEqual((head.status, head.text), (200, ""), target)
                self.assertEqual(head.headers["Content-Type"], answer.headers["Content-Type"])
            self.ask(self.reader, "GET", target + "?q=%zz", 400)
            self.ask(self.reader, "GET", target, 403, headers={"Host": "elsewhere.example"})
            self.ask(self.reader, "GET", target + "?q=" + 20000 * "a", 414)
            refused = Answer(self.reader, "DELETE", target)
            self.assertEqual((refused.status, refused.headers["Allow"]), (405, "GET, HEAD"), target)
        self.ask(self.reader, "GET", "/tags/none", 404, path="/tags/{topic}")
        events = self.ask(self.reader, "GET", "/watch", 200, until=b"event: current").text
        rows = [line for line in events.splitlines() if line.startswith('data: {"topic"')]
        self.assertEqual(len(rows), 5)
        for row in rows:
            self.check_value(json.loads(row.removeprefix("data: ")), DOCUMENT["components"]["schemas"]["Tag"])

    def write_what_is_refused(self):
        cases = [
            (400, SPEED, write("{")),
            (400, SPEED, write({"topic": "plant/press/mode", "value": 1})),
            (401, SPEED, write({"value": 1}, token="")),
            (401, SPEED, write({"value": 1}, token="0123456789abcdef-secreT")),
            (403, SPEED, write({"value": 1}, token=OTHER_TOKEN)),
            (404, "/tags/plant/hidden/a", write({"value": 1})),
            (409, "/tags/plant/press", write({"type": "int8", "value": 1})),
            (413, SPEED, write(70000 * " ")),
            (414, SPEED + "?" + 20000 * "a", write({"value": 1})),
            (415, SPEED, write({"value": 1}, kind="text/plain")),
            (422, SPEED, write({"value": "fast"})),
            (422, SPEED, write({"value": 40.5})),
            (422, "/tags/plant/press/new", write({"value": 1})),
        ]
        for status, target, more in cases:
            self.ask(self.writer, "PUT", target, status, path="/tags/{topic}", **more)
        self.ask(self.reader, "PUT", SPEED, 405, **write({"value": 1}))
        self.assertEqual(json.loads(Answer(self.writer, "GET", SPEED).text)["value"], 12.5)

    def write_what_is_stored(self):
        answer = self.ask(self.writer, "PUT", SPEED, 200, **write({"value": 21.5}))
        self.assertEqual(json.loads(answer.text)["value"], 21.5)
        self.ask(self.writer, "PUT", SPEED, 200, **write(json.loads(answer.text)))
        target = "/tags/plant/press/new"
        self.ask(self.writer, "PUT", target, 201, path="/tags/{topic}", **write({"type": "int8", "value": 1}))
        self.assertEqual(json.loads(Answer(self.reader, "GET", target).text)["value"], 1)

    @staticmethod
    def resize_store(size):
        """Leaves out the options of the mount, since a user namespace may not give all of them again."""
        command = ["mount", "--options-mode", "ignore", "-o", f"remount,size={size}", "none", "/dev/shm"]
        subprocess.run(command, check=True)

    def write_without_room(self):
        store = os.statvfs("/dev/shm")
        self.resize_store((store.f_blocks - store.f_bfree) * store.f_frsize)
        try:
            more = write({"type": "int8", "value": 1})
            self.ask(self.writer, "PUT", "/tags/plant/press/none", 507, path="/tags/{topic}", **more)
        finally:
            self.resize_store("1G")

    def write_without_a_mesh(self):
        os.rename("/run/providers", "/run/elsewhere")
        pathlib.Path("/run/providers").touch()
        try:
            alone = Device(DICTIONARY, self.rules)
            self.ask(alone, "PUT", SPEED, 503, **write({"value": 1}))
            alone.end()
        finally:
            os.unlink("/run/providers")
            os.rename("/run/elsewhere", "/run/providers")

    def test_all_that_is_described_is_served_and_nothing_else(self):
        self.look_at_everything()
        self.write_what_is_refused()
        self.write_what_is_stored()
        self.write_without_room()
        self.write_without_a_mesh()
        self.assertEqual(self.met, documented())

    def test_what_is_not_described_is_not_there(self):
        for target in ("/none", "/tag", "/openapi.yaml", "/mappers/plant"):
            self.assertEqual(Answer(self.reader, "GET", target).status, 404, target)
        for target in ("/tags", "/healthz", "/none"):
            answer = Answer(self.writer, "PUT", target, **write({"value": 1}))
            self.assertEqual(answer.status, 405, target)

    def test_the_description_is_served_as_it_stands(self):
        self.assertEqual(json.loads(Answer(self.reader, "GET", "/openapi.json").text), DOCUMENT)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0]], verbosity=2)
