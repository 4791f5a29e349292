"""The part of the package that is not declared in pyproject.toml: the native core.

It imports no library of the interpreter and is built once per word size, so one wheel serves all
versions.  TDBG_BITS=32 in the environment builds the one for 32 bits; TDBG_LIBRARY names a library
that has been built already.
"""
import os
import shutil
import subprocess

from setuptools import setup
from setuptools.command.build_py import build_py
from setuptools.dist import Distribution

try:
    from setuptools.command.bdist_wheel import bdist_wheel
except ImportError:
    from wheel.bdist_wheel import bdist_wheel

kHere = os.path.dirname(os.path.abspath(__file__))
kLibrary = "tdbgtracer.so"
# The oldest C library whose symbols the core needs is older still; a test sees to that.
kPlatforms = {"64": "manylinux_2_17_x86_64", "32": "manylinux_2_17_i686"}


def bits():
    return os.environ.get("TDBG_BITS", "64")


def build_library(folder):
    given = os.environ.get("TDBG_LIBRARY")
    if given:
        return given
    subprocess.check_call([
        "cmake", "-S", kHere, "-B", folder, "-DCMAKE_BUILD_TYPE=Release", "-DTDBG_BUILD_TESTS=OFF",
        "-DTDBG_M32=" + ("ON" if bits() == "32" else "OFF")])
    subprocess.check_call([
        "cmake", "--build", folder, "--target", "tdbgtracer", "--parallel",
        str(os.cpu_count() or 1)])
    return os.path.join(folder, kLibrary)


class tBuild(build_py):
    def run(self):
        super().run()
        target = os.path.join(self.build_lib, "tdbg", kLibrary)
        library = build_library(os.path.abspath(os.path.join("build", "core-" + bits())))
        shutil.copyfile(library, target)
        os.chmod(target, 0o755)
        subprocess.check_call(["strip", "--strip-unneeded", target])


class tWheel(bdist_wheel):
    def get_tag(self):
        return "py2.py3", "none", kPlatforms[bits()]


class tDistribution(Distribution):
    def has_ext_modules(self):
        return True  # installed where platform-dependent packages are


setup(cmdclass={"build_py": tBuild, "bdist_wheel": tWheel}, distclass=tDistribution)
