"""A build backend for this pure-Python package, made from the standard library alone.

A fresh virtual environment has pip and setuptools but not `wheel`, which setuptools needs to
build any wheel, and there is no package index to fetch it from. The package is a few Python
files, so writing the wheel directly (a zip with a RECORD) is simpler than depending on either.
"""

import base64
import hashlib
import io
import os
import pathlib
import tarfile
import tomllib
import zipfile

ROOT = pathlib.Path(__file__).resolve().parent.parent
PROJECT = tomllib.loads((ROOT / "pyproject.toml").read_text())["project"]
NAME, VERSION = PROJECT["name"], PROJECT["version"]
DIST_INFO = f"{NAME}-{VERSION}.dist-info"
TAG = "py3-none-any"


def _package_files():
    for path in sorted((ROOT / NAME).rglob("*.py")):
        yield path.relative_to(ROOT).as_posix(), path.read_bytes()


def _metadata():
    lines = [
        "Metadata-Version: 2.1",
        f"Name: {NAME}",
        f"Version: {VERSION}",
        f"Summary: {PROJECT.get('description', '')}",
        f"Requires-Python: {PROJECT.get('requires-python', '>=3')}",
    ]
    lines += [f"Classifier: {c}" for c in PROJECT.get("classifiers", [])]
    readme = ROOT / PROJECT.get("readme", "README.md")
    body = readme.read_text() if readme.exists() else ""
    return "\n".join(lines + ["Description-Content-Type: text/markdown", "", body])


def _wheel_info():
    return f"Wheel-Version: 1.0\nGenerator: vntr_backend\nRoot-Is-Purelib: true\nTag: {TAG}\n"


def _record_line(name, data):
    digest = base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()
    return f"{name},sha256={digest},{len(data)}"


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    target = pathlib.Path(metadata_directory) / DIST_INFO
    target.mkdir(parents=True, exist_ok=True)
    (target / "METADATA").write_text(_metadata())
    (target / "WHEEL").write_text(_wheel_info())
    return DIST_INFO


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    filename = f"{NAME}-{VERSION}-{TAG}.whl"
    entries = list(_package_files())
    entries.append((f"{DIST_INFO}/METADATA", _metadata().encode()))
    entries.append((f"{DIST_INFO}/WHEEL", _wheel_info().encode()))
    record = [_record_line(name, data) for name, data in entries]
    record.append(f"{DIST_INFO}/RECORD,,")
    entries.append((f"{DIST_INFO}/RECORD", ("\n".join(record) + "\n").encode()))
    with zipfile.ZipFile(os.path.join(wheel_directory, filename), "w", zipfile.ZIP_DEFLATED) as whl:
        for name, data in entries:
            whl.writestr(name, data)
    return filename


def build_sdist(sdist_directory, config_settings=None):
    base = f"{NAME}-{VERSION}"
    filename = f"{base}.tar.gz"
    with tarfile.open(os.path.join(sdist_directory, filename), "w:gz") as sdist:
        for path in sorted(ROOT.rglob("*")):
            relative = path.relative_to(ROOT)
            if path.is_file() and "__pycache__" not in relative.parts:
                sdist.add(path, arcname=f"{base}/{relative.as_posix()}")
    return filename
