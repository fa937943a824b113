"""The package's own build backend: it only zips the pure-Python package into a wheel.

pip installs a project with --no-build-isolation using whatever build backend the target
environment already has, and a fresh virtual environment has no `wheel` for setuptools to
build with (nor any package index to fetch one from). This backend needs nothing beyond the
standard library, so `pip install --no-build-isolation ./python` works in any fresh
environment."""

from __future__ import annotations

import base64
import hashlib
import os
import re
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
# Name, version and summary come from pyproject.toml's [project] table.
_PROJECT = (ROOT / "pyproject.toml").read_text(encoding="utf-8")


def _field(key: str) -> str:
    return re.search(rf'^{key} = "([^"]*)"', _PROJECT, re.MULTILINE).group(1)


NAME = _field("name")
VERSION = _field("version")
SUMMARY = _field("description")
TAG = "py3-none-any"
DIST_INFO = f"{NAME}-{VERSION}.dist-info"


def _metadata() -> str:
    readme = (ROOT / "README.md").read_text(encoding="utf-8")
    return (f"Metadata-Version: 2.1\nName: {NAME}\nVersion: {VERSION}\nSummary: {SUMMARY}\n"
            f"Requires-Python: >=3.9\nDescription-Content-Type: text/markdown\n\n{readme}")


def _record_line(name: str, data: bytes) -> str:
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def _files():
    """(name in the wheel, bytes) of every file the wheel carries."""
    package = ROOT / NAME
    for path in sorted(package.rglob("*")):
        if path.is_file() and "__pycache__" not in path.parts and path.suffix != ".pyc":
            yield path.relative_to(ROOT).as_posix(), path.read_bytes()
    yield f"{DIST_INFO}/METADATA", _metadata().encode()
    yield f"{DIST_INFO}/WHEEL", (f"Wheel-Version: 1.0\nGenerator: pellix_build\n"
                                 f"Root-Is-Purelib: true\nTag: {TAG}\n").encode()
    yield f"{DIST_INFO}/top_level.txt", f"{NAME}\n".encode()


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    target = Path(metadata_directory) / DIST_INFO
    target.mkdir(parents=True, exist_ok=True)
    (target / "METADATA").write_text(_metadata(), encoding="utf-8")
    return DIST_INFO


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    wheel_name = f"{NAME}-{VERSION}-{TAG}.whl"
    records = []
    with zipfile.ZipFile(os.path.join(wheel_directory, wheel_name), "w",
                         zipfile.ZIP_DEFLATED) as wheel:
        for name, data in _files():
            wheel.writestr(name, data)
            records.append(_record_line(name, data))
        records.append(f"{DIST_INFO}/RECORD,,")
        wheel.writestr(f"{DIST_INFO}/RECORD", "\n".join(records) + "\n")
    return wheel_name


def build_sdist(sdist_directory, config_settings=None):
    import tarfile

    base = f"{NAME}-{VERSION}"
    sdist_name = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, sdist_name), "w:gz") as sdist:
        for item in ("pyproject.toml", "README.md", "_build", NAME):
            sdist.add(ROOT / item, arcname=f"{base}/{item}",
                      filter=lambda info: None if "__pycache__" in info.name else info)
    return sdist_name
