"""Type hints and docstrings are complete, and the stubs say what the module has."""

import inspect
import subprocess
import sys
from pathlib import Path

import pytest
import zu_kp as kp

PACKAGE = Path(kp.__file__).parent


def run(*command, cwd):
    result = subprocess.run(command, cwd=cwd, capture_output=True, text=True, check=False)
    return result.returncode, result.stdout + result.stderr


# All tests share one cache, since mypy first reads the stubs of the standard library into it.
@pytest.fixture(scope="module")
def cache(tmp_path_factory):
    pytest.importorskip("mypy")
    return tmp_path_factory.mktemp("mypy")


def test_the_package_passes_strict_checks(cache):
    code, output = run(
        sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(cache), "zu_kp", cwd=PACKAGE.parent
    )

    assert code == 0, output


def test_the_stubs_are_what_the_module_has(cache, tmp_path):
    code, output = run(sys.executable, "-m", "mypy.stubtest", "zu_kp", cwd=PACKAGE.parent)

    assert code == 0, output


def test_a_program_is_checked_against_them(cache, tmp_path):
    program = tmp_path / "program.py"
    program.write_text(
        "import zu_kp as kp\n"
        "async def main() -> None:\n"
        "    async with kp.Node('n') as node:\n"
        "        await node.provide('a', 'double').write(1.0)\n"
        "        async for change in node.watch('#', timeout=1):\n"
        "            reveal_type(change.quality)\n"
        "        node.provide('a', float)\n"
    )
    code, output = run(
        sys.executable, "-m", "mypy", "--strict", "--cache-dir", str(cache), str(program), cwd=PACKAGE.parent
    )

    assert code == 1
    assert 'Revealed type is "builtins.int"' in output
    assert 'Argument 2 to "provide" of "Node" has incompatible type' in output
    assert "Found 1 error" in output


@pytest.mark.parametrize("name", kp.__all__)
def test_everything_public_is_documented(name):
    thing = getattr(kp, name)
    if name == "TYPES":
        return
    assert inspect.getdoc(thing)
    if inspect.isclass(thing):
        for part in vars(thing):
            if not part.startswith("_"):
                assert inspect.getdoc(getattr(thing, part)), part


def test_help_reads_well():
    code, output = run(sys.executable, "-c", "import zu_kp; help(zu_kp)", cwd=PACKAGE.parent)

    assert code == 0
    for text in ("async with kp.Node", "write(self, /, value, quality=1, source_time=None)", "get(topic, /)"):
        assert text in output
