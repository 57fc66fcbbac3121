# SPDX-License-Identifier: Apache-2.0
"""Builds the Python package with the shared library it loads.

    pip install --no-build-isolation .

runs the project's CMake build (the Halden target only) in build-wheel/cmake
and puts libHalden.AdaptiveCpp.so into the package. HALDEN_CMAKE_BUILD_DIR
names an already configured CMake build folder to build and take the library
from instead (absolute, or relative to this folder).
"""

import os
import re
import shutil
import subprocess
from pathlib import Path

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.errors import SetupError
from wheel.bdist_wheel import bdist_wheel

ROOT = Path(__file__).resolve().parent
LIBRARY = "libHalden.AdaptiveCpp.so"
# Away from build/, which is the usual CMake build folder here.
BUILD_BASE = str(ROOT / "build-wheel")


def cmake_version():
    text = (ROOT / "CMakeLists.txt").read_text()
    found = re.search(r"project\(\s*Halden\b[^)]*?\bVERSION\s+([0-9][0-9.]*)", text)
    if not found:
        raise SetupError("CMakeLists.txt has no project(Halden VERSION x.y.z)")
    return found.group(1)


def cmake(*args):
    if shutil.which("cmake") is None:
        raise SetupError("building the Halden library needs CMake 3.25 or newer on PATH")
    print("halden:", " ".join(["cmake", *args]), flush=True)
    if subprocess.run(["cmake", *args]).returncode:
        raise SetupError(f"cmake {' '.join(args)} failed")


def build_library(private_folder):
    """Builds the Halden target and returns the path of the shared library."""
    reused = os.environ.get("HALDEN_CMAKE_BUILD_DIR")
    if reused:
        folder = ROOT / reused
        cache = folder / "CMakeCache.txt"
        if not cache.is_file():
            raise SetupError(f"HALDEN_CMAKE_BUILD_DIR={reused}: {folder} is not a configured CMake build folder")
        if re.search(r"^HALDEN_SANITIZE:BOOL=(ON|TRUE|1)$", cache.read_text(), re.M):
            # Such a library loads only into an interpreter built with the sanitizers.
            raise SetupError(f"HALDEN_CMAKE_BUILD_DIR={reused} is a sanitized build; choose another")
    else:
        folder = private_folder
        cmake("-S", str(ROOT), "-B", str(folder), "-DCMAKE_BUILD_TYPE=Release", "-DHALDEN_BUILD_TESTS=OFF",
              "-DHALDEN_BUILD_BENCHMARKS=OFF", "-DHALDEN_BUILD_TOOLS=OFF", "-DHALDEN_BUILD_PYTHON=OFF")
    parallel = [] if os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL") else ["--parallel", str(os.cpu_count() or 1)]
    cmake("--build", str(folder), "--target", "Halden", *parallel)
    library = folder / LIBRARY
    if not library.exists():
        raise SetupError(f"the build left no {LIBRARY} in {folder}")
    return library.resolve()  # the versioned file behind the links


class BuildPyWithLibrary(build_py):
    """Copies the package and puts the freshly built library beside its modules,
    where the package loads it from."""

    def run(self):
        super().run()
        build_base = Path(self.get_finalized_command("build").build_base)
        library = build_library((build_base / "cmake").resolve())
        # One file under the unversioned name: a wheel cannot carry the links.
        self.copy_file(str(library), os.path.join(self.build_lib, "halden", LIBRARY))


class PlatformWheel(bdist_wheel):
    """A wheel for this platform, which any Python 3 of it can use: the
    package carries a native library but loads it through ctypes, so it has
    no tie to one interpreter's ABI."""

    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = False

    def get_tag(self):
        return "py3", "none", super().get_tag()[2]


os.makedirs(BUILD_BASE, exist_ok=True)
setup(
    version=cmake_version(),
    # Here rather than in pyproject.toml, where setuptools 66 still calls them beta.
    packages=["halden"],
    package_dir={"": "python"},
    package_data={"halden": ["py.typed"]},
    cmdclass={"build_py": BuildPyWithLibrary, "bdist_wheel": PlatformWheel},
    # The egg-info would otherwise land in python/, next to the sources.
    options={"build": {"build_base": BUILD_BASE}, "egg_info": {"egg_base": BUILD_BASE}},
)
