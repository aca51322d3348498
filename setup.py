"""Builds the native module with the project's own CMake build, for pip and setuptools."""

import os
import shutil
import subprocess
import sys
from pathlib import Path

from setuptools import Extension, setup
from setuptools.command.build_ext import build_ext

ROOT = Path(__file__).resolve().parent


class CMakeBuild(build_ext):
    """Configures the repository with only the Python package on, builds it, copies the module."""

    def build_extension(self, ext):
        build_dir = Path(self.build_temp).resolve() / "cmake"
        configure = [
            "cmake", "-S", str(ROOT), "-B", str(build_dir),
            "-DCMAKE_BUILD_TYPE=Release",
            f"-DPython3_EXECUTABLE={sys.executable}",
            "-DQUILMA_BUILD_PYTHON=ON",
            "-DQUILMA_BUILD_TESTS=OFF",
            "-DQUILMA_BUILD_BENCH=OFF",
            "-DQUILMA_BUILD_TOOLS=OFF",
        ]
        if shutil.which("ninja"):
            configure += ["-G", "Ninja"]
        subprocess.run(configure, check=True)
        jobs = str(os.cpu_count() or 1)
        subprocess.run(["cmake", "--build", str(build_dir), "--target", "quilma_python",
                        "-j", jobs], check=True)
        built = next((build_dir / "python" / "quilma" / "storage").glob("_native*.so"))
        target = Path(self.get_ext_fullpath(ext.name))
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy2(built, target)


setup(
    ext_modules=[Extension("quilma.storage._native", sources=[])],
    cmdclass={"build_ext": CMakeBuild},
)
