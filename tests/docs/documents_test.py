#!/usr/bin/env python3
"""What the documents state as a number, a limit or a command is what the code says."""

import re
import unittest
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def text(path: str) -> str:
    """The whole text of a file of the project."""
    return (ROOT / path).read_text(encoding="utf-8")


def source(name: str) -> str:
    """The text of the one source file of that name below src or tools, wherever it lies."""
    found = [path for part in ("src", "tools") for path in (ROOT / part).rglob(name)]
    assert len(found) == 1, f"{name}: {found}"
    return found[0].read_text(encoding="utf-8")


def only(pattern: str, where: str) -> str:
    """The first group of the pattern, which must match."""
    found = re.search(pattern, where, re.MULTILINE)
    assert found, pattern
    return found.group(1)


def documents() -> list[Path]:
    """Every document in Markdown that is the project's own."""
    return sorted(path for path in ROOT.rglob("*.md") if "build" not in path.relative_to(ROOT).parts[:1])


class Rights(unittest.TestCase):
    """The modes of the two directories."""

    def modes(self, directory: str) -> set[str]:
        doctor = source("check_system.cpp")
        name = "providers" if directory == "/run/providers" else "store"
        declared = only(rf'"{name}-mode",\s+"(\d{{4}})"', doctor)
        advice = set(re.findall(r"chmod (3\d{3})|install -d -m (3\d{3})", doctor))
        if name == "providers":
            self.assertTrue({mode for pair in advice for mode in pair if mode} <= {declared})
        return {
            only(rf"^d {directory} (\d{{4}}) root zu-kp", text("packaging/zu-kp.tmpfiles")),
            only(rf"^\.I {directory}\n(\d{{4}}) root:zu-kp", text("packaging/man/zu-kp.7")),
            only(rf"`{directory}`\s+as\s+`(\d{{4}})`", text("SECURITY.md")),
            declared,
        }

    def test_sockets_have_one_mode_everywhere(self) -> None:
        self.assertEqual(len(self.modes("/run/providers")), 1, self.modes("/run/providers"))

    def test_store_has_one_mode_everywhere(self) -> None:
        self.assertEqual(len(self.modes("/dev/shm/zu-kp")), 1, self.modes("/dev/shm/zu-kp"))


def literals_of_log_statements() -> set[str]:
    """The texts of the library's warnings and errors, with … for what is filled in."""
    texts = set()
    for path in (ROOT / "src").rglob("*.cpp"):
        # A statement ends with the parenthesis before its semicolon.
        pattern = r"KP_(?:ERROR|WARN)\((.*?)\);|KP_LOG_AT\(KP_LEVEL_(?:ERROR|WARN),(.*?)\);"
        for statement in re.findall(pattern, path.read_text(encoding="utf-8"), re.DOTALL):
            statement = [re.sub(r"LogSite::current\([^)]*\)", "", part) for part in statement]
            pieces = re.findall(r'"((?:[^"\\]|\\.)*)"', "".join(statement))
            texts.add(re.sub(r"%[a-z]+", "…", "".join(pieces).replace("\\n", "")))
    return texts - {"", "…"}


class Messages(unittest.TestCase):
    """Every message of the library is explained."""

    def test_troubleshooting_has_every_message(self) -> None:
        explained = set(re.findall(r"`([^`]+)`", text("docs/troubleshooting.md")))
        messages = literals_of_log_statements()
        self.assertGreater(len(messages), 40)
        self.assertEqual(messages - explained, set())


class Limits(unittest.TestCase):
    """The limits that README and zu-kp(7) name."""

    def test_value_size(self) -> None:
        size = only(r"KP_MAX_VALUE_SIZE = (\d+)", text("include/kp.h"))
        self.assertIn(f"Values of {size} bytes;", text("README.md"))
        self.assertIn(f"at most {size} bytes", text("packaging/man/zu-kp.7"))


class Commands(unittest.TestCase):
    """Commands and files that documents name are there."""

    def test_make_knows_every_target_that_is_named(self) -> None:
        targets = set(re.findall(r"^([a-z-]+):", text("Makefile"), re.MULTILINE))
        for document in documents():
            for target in re.findall(
                r"`make ([a-z-]+)(?: [A-Z]+=[^`]*)?`", document.read_text(encoding="utf-8")
            ):
                self.assertIn(target, targets, document)

    def test_presets_exist(self) -> None:
        presets = set(re.findall(r'"name": "([a-z0-9-]+)"', text("CMakePresets.json")))
        for document in documents():
            named = re.findall(r"(?:--workflow )?--preset ([a-z0-9-]+)", document.read_text(encoding="utf-8"))
            self.assertLessEqual(set(named), presets, document)

    def test_links_lead_to_files(self) -> None:
        for document in documents():
            for link in re.findall(r"\]\(([^)#:]+)[^):]*\)", document.read_text(encoding="utf-8")):
                self.assertTrue((document.parent / link).exists(), f"{document}: {link}")

    def test_programs_of_the_project_exist(self) -> None:
        pattern = r"`((?:scripts|packaging|tests|bench)/[A-Za-z0-9_./-]+)"
        for document in documents():
            for path in re.findall(pattern, document.read_text(encoding="utf-8")):
                self.assertTrue((ROOT / path).exists(), f"{document}: {path}")


class Checks(unittest.TestCase):
    """What the documents say of the project's own checks."""

    def test_fuzz_seconds_in_ci(self) -> None:
        seconds = only(r"tests/fuzz/run (\d+)", text(".ci/run"))
        self.assertIn(f"`.ci/run --further` gives each target {seconds} seconds", text("docs/reliability.md"))

    def test_coverage_limits(self) -> None:
        script = text("scripts/coverage")
        lines = only(r"--fail-under-line (\d+)", script)
        branches = only(r"--fail-under-branch (\d+)", script)
        self.assertIn(
            f"fails below {lines} % of the lines and {branches} % of the branches",
            text("docs/reliability.md"),
        )

    def test_changelog_of_the_packages_names_every_package(self) -> None:
        packages = re.findall(r"^Package: (.*)", text("packaging/debian/control"), re.MULTILINE)
        for package in packages:
            self.assertIn(package, text("packaging/debian/changelog"))


if __name__ == "__main__":
    unittest.main()
