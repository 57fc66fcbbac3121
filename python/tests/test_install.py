# SPDX-License-Identifier: Apache-2.0
import importlib
import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import halden

SOURCE = Path(__file__).resolve().parents[2]

# What the wheel is built from; CMakeLists.txt gives the version.
PACKAGING = ["pyproject.toml", "setup.py", "README.md", "CMakeLists.txt"]

PROBE = """
import importlib.metadata, json, sysconfig
import numpy as np
import halden
with halden.Queue() as q:
    blurred = halden.blur(q, np.eye(8), radius=1.5)
print(json.dumps({"file": halden.__file__, "site": sysconfig.get_paths()["platlib"],
                  "version": importlib.metadata.version("halden"),
                  "keys": [d.key for d in halden.devices()], "blurred": blurred.tolist()}))
"""


def test_pip_installs_the_package_and_its_library_into_a_fresh_venv(tmp_path, q):
    build = os.environ.get("HALDEN_TEST_CMAKE_BUILD_DIR")
    if not build:
        pytest.skip("HALDEN_TEST_CMAKE_BUILD_DIR (set by ctest) names no CMake build folder to reuse")
    missing = []
    for module, package in [("ensurepip", "python3-venv"), ("setuptools", "python3-setuptools"),
                            ("wheel", "python3-wheel")]:
        try:
            importlib.import_module(module)
        except ImportError:
            missing.append(package)
    if missing:
        pytest.skip(f"installing needs {', '.join(missing)} for {sys.executable}")
    if not all((SOURCE / name).is_file() for name in PACKAGING):
        pytest.skip(f"{SOURCE} is not the project's source tree")

    # A copy, so that the build writes nothing into the source tree.
    source = tmp_path / "source"
    shutil.copytree(SOURCE / "python" / "halden", source / "python" / "halden",
                    ignore=shutil.ignore_patterns("__pycache__", "*.so*"))
    for name in PACKAGING:
        shutil.copy(SOURCE / name, source / name)
    env = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "HALDEN_LIBRARY")}
    env.update(HALDEN_CMAKE_BUILD_DIR=build, PIP_DISABLE_PIP_VERSION_CHECK="1")

    venv = tmp_path / "venv"
    made = subprocess.run([sys.executable, "-m", "venv", "--system-site-packages", str(venv)], env=env,
                          capture_output=True, text=True)
    if made.returncode or not (venv / "bin" / "pip").exists():
        pytest.skip(f"cannot make a virtual environment with pip: {made.stderr.strip()[-500:]}")
    installed = subprocess.run([str(venv / "bin" / "pip"), "install", "--no-build-isolation", "--no-index",
                                "--no-cache-dir", str(source)], env=env, cwd=tmp_path, capture_output=True, text=True)
    assert installed.returncode == 0, installed.stdout[-4000:] + installed.stderr[-4000:]

    probe = subprocess.run([str(venv / "bin" / "python"), "-c", PROBE], env=env, cwd=tmp_path,
                           capture_output=True, text=True)
    assert probe.returncode == 0, probe.stderr
    found = json.loads(probe.stdout)
    site = Path(found["site"]).resolve()
    assert Path(found["file"]).resolve() == site / "halden" / "__init__.py"
    assert (site / "halden" / "libHalden.AdaptiveCpp.so").is_file()
    assert found["keys"] == [d.key for d in halden.devices()]
    np.testing.assert_array_equal(np.float32(found["blurred"]), halden.blur(q, np.eye(8), radius=1.5))

    version = found["version"]
    assert re.search(rf"project\(Halden VERSION {re.escape(version)}\b", (SOURCE / "CMakeLists.txt").read_text())
    wheel = (site / f"halden-{version}.dist-info" / "WHEEL").read_text()
    assert "Root-Is-Purelib: false" in wheel and "Tag: py3-none-linux_" in wheel
    leftovers = {p.name for p in source.iterdir()} - set(PACKAGING) - {"python", "build-wheel"}
    assert not leftovers and not list((source / "python").glob("*.egg-info"))

