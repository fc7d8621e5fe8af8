"""Builds the extension module with the project's own CMake files, as everything else is built.

The wheel holds one file for CPython 3.9 and later, with the library in it, so that nothing else has to
be installed. It needs cmake, ninja, g++, nlohmann-json3-dev, libtomlplusplus-dev and Python's headers.
"""

import subprocess
import sysconfig
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent.parent
PARTS = ("TESTS", "EXAMPLES", "TOOLS", "MQTT", "BENCH")


class CMakeBuild(build_ext):
    """Lets CMake make the one extension module."""

    def build_extension(self, ext: Extension) -> None:
        """Builds it into the place where setuptools looks for it."""
        target = Path(self.get_ext_fullpath(ext.name)).resolve().parent
        build = Path(self.build_temp).resolve()
        options = [f"-DKP_BUILD_{part}=OFF" for part in PARTS]
        options += [
            "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
            "-DKP_BUILD_PYTHON=ON",
            "-DKP_PYTHON_WITH_LIBRARY=ON",
            f"-DKP_PYTHON_INCLUDE={sysconfig.get_path('include')}",
        ]
        subprocess.run(["cmake", "-G", "Ninja", "-S", str(ROOT), "-B", str(build), *options], check=True)
        subprocess.run(["cmake", "--build", str(build), "--target", "kp_python"], check=True)
        target.mkdir(parents=True, exist_ok=True)
        made = build / "python" / "package" / "zu_kp" / "_native.abi3.so"
        subprocess.run(["strip", "--strip-unneeded", "-o", str(target / made.name), str(made)], check=True)


setup(
    ext_modules=[Extension("zu_kp._native", sources=[], py_limited_api=True)],
    cmdclass={"build_ext": CMakeBuild},
    options={"bdist_wheel": {"py_limited_api": "cp39"}},
)
