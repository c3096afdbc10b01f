"""Marks the wheel for one platform, KALVRIN_PLATFORM, and for every Python 3: the library inside is no extension."""

import os

from setuptools import Distribution, setup
from wheel.bdist_wheel import bdist_wheel


class Wheel(bdist_wheel):
    def get_tag(self):
        return "py3", "none", os.environ["KALVRIN_PLATFORM"]


class Binary(Distribution):
    def has_ext_modules(self):
        return True


setup(cmdclass={"bdist_wheel": Wheel}, distclass=Binary)
