"""Builds the wheel with the project's CMake build: the compiled module and the
two libraries it loads (decoder and point layer) go into the package folder,
where the module finds them through its $ORIGIN run path.

    /usr/bin/python3 -m build --wheel --no-isolation python/
"""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent.parent


class CMakeBuild(build_ext):
    def build_extension(self, ext):
        build = Path(self.build_temp).resolve() / "cmake"
        subprocess.run(["cmake", "-S", str(ROOT), "-B", str(build), "-DCMAKE_BUILD_TYPE=Release",
                        f"-DPython3_EXECUTABLE={sys.executable}", "-DKVR_BUILD_TESTS=OFF", "-DKVR_BUILD_BENCH=OFF",
                        # No build-tree paths in the wheel: everything is found beside the module.
                        "-DCMAKE_BUILD_WITH_INSTALL_RPATH=ON", "-DCMAKE_INSTALL_RPATH=$ORIGIN"],
                       check=True)
        jobs = os.environ.get("CMAKE_BUILD_PARALLEL_LEVEL", "2")
        subprocess.run(["cmake", "--build", str(build), "-j", jobs, "--target", "kvr_decode_python"], check=True)
        module = Path(self.get_ext_fullpath(ext.name))
        module.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(build / "python" / "kvr_decode" / module.name, module)
        # The libraries under their sonames, as the module asks for them.
        for library in ("libkvr_decode.so.0", "libkvr_cloud.so.0"):
            shutil.copy2((build / "src" / library).resolve(), module.parent / library)


setup(ext_modules=[Extension("kvr_decode._kvr_decode", sources=[])], cmdclass={"build_ext": CMakeBuild})
