"""Compiles what docs/cpp.md shows, which must succeed, and the programs of the folder misuse, which
must fail with the message that their first line expects. Arguments: the compilers to do it with."""

import concurrent.futures
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

HERE = pathlib.Path(__file__).parent
ROOT = HERE.parent.parent
OPTIONS = ["-fsyntax-only", "-Wall", "-Wextra", "-Werror", f"-I{ROOT / 'include'}"]
PREAMBLE = "#include <kp.hpp>\n#include <cstdio>\n#include <exception>\n#include <iostream>\n"
COMPILERS: list[str] = []


def compile_text(compiler: str, text: str, options: list[str]) -> tuple[bool, str]:
    """Whether a text compiles, and what the compiler says."""
    with tempfile.NamedTemporaryFile("w", suffix=".cpp") as file:
        file.write(text)
        file.flush()
        done = subprocess.run(
            [compiler, *OPTIONS, *options, file.name], capture_output=True, text=True, timeout=110
        )
        return done.returncode == 0, done.stderr


def has_coroutines(compiler: str) -> bool:
    """Whether the compiler has the C++20 coroutines as the standard library asks for them."""
    text = "#include <version>\n#ifndef __cpp_lib_coroutine\n#error\n#endif\n"
    return compile_text(compiler, text, ["-std=c++20"])[0]


def examples() -> list[str]:
    return re.findall(r"```cpp\n(.*?)```", (ROOT / "docs/cpp.md").read_text("utf-8"), re.DOTALL)


def in_parallel(function, cases):
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        return list(pool.map(lambda case: (case, function(*case)), cases))


class Compiling(unittest.TestCase):
    def test_every_example_of_the_document_compiles(self) -> None:
        cases = []
        for compiler in COMPILERS:
            for example in examples():
                if "co_await" in example:
                    if has_coroutines(compiler):
                        cases.append((compiler, PREAMBLE + example, ["-std=c++20"]))
                    continue
                text = example if "#include" in example else PREAMBLE + example
                cases.append((compiler, text, ["-std=c++17"]))
                if "::open(" in example:
                    cases.append((compiler, text, ["-std=c++17", "-fno-exceptions", "-fno-rtti"]))
        self.assertGreaterEqual(len(cases), 8)
        for (compiler, text, options), (compiles, said) in in_parallel(compile_text, cases):
            self.assertTrue(compiles, f"{compiler} {options}\n{text}\n{said}")

    def test_misuse_fails_with_a_message_that_says_why(self) -> None:
        cases = []
        for compiler in COMPILERS:
            for path in sorted((HERE / "misuse").glob("*.cpp")):
                text = path.read_text("utf-8")
                options = re.search(r"^// options: (.*)$", text, re.MULTILINE)
                cases.append((compiler, text, ["-std=c++17", *(options[1].split() if options else [])]))
        self.assertGreaterEqual(len(cases), 14)
        for (compiler, text, _), (compiles, said) in in_parallel(compile_text, cases):
            expected = re.match(r"// expect: (.*)", text)[1]
            self.assertFalse(compiles, f"{compiler} takes\n{text}")
            self.assertIn(expected, said.replace("\\'", "'"), f"{compiler} of\n{text}")


if __name__ == "__main__":
    COMPILERS.extend(sys.argv[1:])
    unittest.main(argv=sys.argv[:1])
