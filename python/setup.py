"""Marks the wheel for one platform, KALVRIN_PLATFORM, and for every Python 3: the library inside is no extension."""

import os

from setuptools import setup
from wheel.bdist_wheel import bdist_wheel


class Wheel(bdist_wheel):
    def finalize_options(self):
        super().finalize_options()
        self.root_is_pure = False

    def get_tag(self):
        return "py3", "none", os.environ["KALVRIN_PLATFORM"]


setup(cmdclass={"bdist_wheel": Wheel})
