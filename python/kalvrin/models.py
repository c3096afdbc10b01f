"""The models that come with kalvrin, each the path of its file.

    >>> kalvrin.stems(kalvrin.models.separator, audio)
    >>> dir(kalvrin.models)                                 # their names

They lie in the wheel, or in share/kalvrin/models of the system. `KALVRIN_MODELS` names another folder.
"""

from __future__ import annotations

import os
import pathlib
import sys


def _files() -> dict[str, pathlib.Path]:
    own = os.environ.get("KALVRIN_MODELS")
    prefixes = (str(pathlib.Path(__file__).with_name("_installed")), sys.prefix, "/usr/local", "/usr")
    folders = [own] if own else [prefix + "/share/kalvrin/models" for prefix in prefixes]
    for folder in folders:
        files = {path.stem: path for path in sorted(pathlib.Path(folder).glob("*.onnx"))}
        if files:
            return files
    return {}


def __dir__() -> list[str]:
    return list(_files())


def __getattr__(name: str) -> pathlib.Path:
    files = _files()
    if name in files:
        return files[name]
    raise AttributeError(f"no model is called {name!r}; there are: {', '.join(files)}" if files else
                         "no models are installed here; on Debian they are in the package kalvrin")
