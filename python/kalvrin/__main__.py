"""The command `kalvrin`, and `python -m kalvrin`: becomes the tool inside the wheel, or the system's."""

from __future__ import annotations

import os
import pathlib
import shutil
import sys


def main() -> None:
    inside = pathlib.Path(__file__).with_name("_installed") / "bin/kalvrin"
    tool = str(inside) if inside.exists() else shutil.which("kalvrin")
    if not tool:
        sys.exit("kalvrin: the tool is for Linux; import kalvrin works here" if sys.platform == "win32" else
                 "kalvrin: the tool is not installed; on Debian it is in the package kalvrin")
    os.execv(tool, ["kalvrin", *sys.argv[1:]])


if __name__ == "__main__":
    main()
