"""What pip calls to build the package: setuptools, where the library is in kalvrin/_installed.

`scripts/dist` puts it there, in a copy of this folder. Without it pip is told what is missing before it downloads
anything, which is why pyproject.toml asks for no package itself.
"""

from __future__ import annotations

import pathlib
import sys
from typing import Any

_MISSING = """
kalvrin: this folder has the Python module only, not the library that it calls.
  A package with everything inside:  make dist && pip install dist/kalvrin-*.whl
  The module without installing it:  make build, then set
                                     PYTHONPATH=python KALVRIN_LIBRARY=build/lib/libkalvrin_c.so
  On Debian:                         make deb && sudo apt install ./build-deb/packages/*.deb
"""


def _require_library() -> None:
    if not list(pathlib.Path("kalvrin/_installed").glob("*/*kalvrin_c.*")):
        sys.exit(_MISSING)


def get_requires_for_build_wheel(config_settings: Any = None) -> list[str]:
    _require_library()
    return ["setuptools>=61", "wheel"]


def build_wheel(wheel_directory: str, config_settings: Any = None,
                metadata_directory: str | None = None) -> str:
    _require_library()
    from setuptools import build_meta
    return str(build_meta.build_wheel(wheel_directory, config_settings, metadata_directory))


def build_sdist(sdist_directory: str, config_settings: Any = None) -> str:
    sys.exit("kalvrin: the source archive is that of the whole project, by make dist")
