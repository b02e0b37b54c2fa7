#!/usr/bin/env python3
"""An outside project finds the installed package and its allocations arrive, by CMake and by pkg-config.

    check_install.py BUILD_FOLDER PROJECT_FOLDER CXX

Both ways go against the installed tree after it was moved, so nothing can lean on where it was built or installed.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path


def run(*command, **options):
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=120, **options)
    if result.returncode != 0:
        raise SystemExit(f"{command}\n{result.stdout}{result.stderr}")
    return result.stdout


def install(build, folder):
    run("cmake", "--install", build, "--prefix", folder / "installed")
    return Path(shutil.move(folder / "installed", folder / "moved"))


def build_with_cmake(project, prefix, folder, compiler):
    # As strict as a linker can be about libraries that nobody refers to.
    run("cmake", "-S", project, "-B", folder / "cmake", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed")
    run("cmake", "--build", folder / "cmake")
    return folder / "cmake/outside"


def build_with_pkg_config(project, prefix, folder, compiler):
    (pc_file,) = prefix.rglob("vbx_mem.pc")
    environment = dict(os.environ, PKG_CONFIG_PATH=str(pc_file.parent))
    flags = run("pkg-config", "--cflags", "--libs", "vbx_mem", env=environment).split()
    library_folder = next(prefix.rglob("libvbx_mem.so")).parent
    program = folder / "with_pkg_config"
    run(compiler, "-std=c++20", "-g", "-Wl,--as-needed", project / "main.cpp", "-o", program, *flags,
        f"-Wl,-rpath,{library_folder}")
    return program


def faults_of(program, folder):
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", program))
    if "libtbbamalloc.so" not in needed or needed.index("libtbbamalloc.so") > needed.index("libc.so.6"):
        yield f"{program.name}: the shim does not stand in front of the C library: {needed}"
    if "not found" in run("ldd", program):
        yield f"{program.name}: {run('ldd', program)}"
    report = folder / "mem_tbb_fileline.tvx.log"
    report.unlink(missing_ok=True)
    run(program, cwd=folder, env=dict(os.environ, TARVANE_MEM_PROFILE_PER_FILELINE="1"))
    if not re.search(r"^[0-9A-F]{16}\t4032\t.*/main\.cpp\t\d+\tmain$", report.read_text(), re.MULTILINE):
        yield f"{program.name}: its allocation is missing in\n{report.read_text()}"


def preload_faults(prefix, folder):
    """The preload library finds the library beside it, without any search path."""
    library_folder = next(prefix.rglob("libvbx_mem_preload.so")).parent
    preload = f"{library_folder}/libtbbamalloc.so {library_folder}/libvbx_mem_preload.so"
    run("/bin/true", cwd=folder, env=dict(os.environ, LD_PRELOAD=preload, TARVANE_MEM_PRELOAD_TAG="outside",
                                          TARVANE_MEM_PROFILE_PER_FILELINE="1"))
    if not (folder / "mem_tbb_fileline.outside.log").is_file():
        yield "preloaded from the installed tree: no report"


def main(build, project, compiler):
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        prefix = install(build, folder)
        found = list(preload_faults(prefix, folder))
        for way in (build_with_cmake, build_with_pkg_config):
            found += faults_of(way(project, prefix, folder, compiler), folder)
    print("\n".join(found) or "the installed package works both ways")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3]))
