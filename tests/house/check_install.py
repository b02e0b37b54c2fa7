#!/usr/bin/env python3
"""The installed product and the Debian packages: outside programs find them, and their allocations arrive.

    check_install.py BUILD_FOLDER PROJECT_FOLDER CXX HEADER_FOLDER VERSION

It is installed into a prefix and then moved, so nothing can lean on where it was built or installed. The packages, if
this machine makes them, have what belongs in them and no more, depend on what they need, and work where they are
unpacked, which is not where the host would have them.
"""
import os
import re
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

RUNTIME, DEVELOPMENT = "libvbx-mem", "libvbx-mem-dev"
SITE = r"^[0-9A-F]{{16}}\t{bytes}\t.*\t{module}\t.*/{file}\t\d+\t{function}(\(\))?$"
PLUGIN = dict(bytes=5376, module="plugin", file="plugin.cpp", function="plugin_work")


def run(*command, **options):
    options = {"timeout": 120, **options}
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if result.returncode != 0:
        raise SystemExit(f"{command}: status {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout + result.stderr


def only(prefix, name):
    (path,) = prefix.rglob(name)
    return path


def build_with_cmake(project, prefix, folder, compiler):
    # As strict as a linker can be about libraries that nobody refers to.
    run("cmake", "-S", project, "-B", folder / "cmake", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_CXX_COMPILER={compiler}", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_EXE_LINKER_FLAGS=-Wl,--as-needed")
    run("cmake", "--build", folder / "cmake")
    return [folder / "cmake/outside", folder / "cmake/archived"], folder / "cmake/libplugin.so"


def build_with_pkg_config(project, prefix, folder, compiler):
    # Beside another package that links in the same manner: repeated words are dropped.
    (folder / "other.pc").write_text("Name: other\nDescription: other\nVersion: 1\n"
                                     "Libs: -Wl,--push-state,--no-as-needed -ldl -Wl,--pop-state\n")
    environment = dict(os.environ, PKG_CONFIG_PATH=f"{only(prefix, 'vbx_mem.pc').parent}:{folder}")
    flags = run("pkg-config", "--cflags", "--libs", "vbx_mem", "other", env=environment).split()
    flags += ["-std=c++20", "-g", "-Wl,--as-needed", f"-Wl,-rpath,{only(prefix, 'libvbx_mem.so').parent}"]
    program, plugin = folder / "with_pkg_config", folder / "libplugin.so"
    run(compiler, project / "main.cpp", "-o", program, *flags)
    run(compiler, "-shared", "-fPIC", project / "plugin.cpp", "-o", plugin, *flags)
    return [program], plugin


def sites_missing(folder, program, *arguments, sites, **environment):
    """Runs the program and looks for its sites in the report."""
    report = folder / "mem_tbb_fileline.tvx.log"
    report.unlink(missing_ok=True)
    run(program, *arguments, cwd=folder, env=dict(os.environ, TARVANE_MEM_PROFILE_PER_FILELINE="1", **environment))
    text = report.read_text() if report.is_file() else "no report"
    for site in sites:
        if not re.search(SITE.format(**site), text, re.MULTILINE):
            yield f"{program} with {environment}: {site} is missing in\n{text}"


def linked_faults(program, plugin, folder):
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", run("readelf", "-dW", program))
    if "libtbbamalloc.so" not in needed or needed.index("libtbbamalloc.so") > needed.index("libc.so.6"):
        yield f"{program}: the shim does not stand in front of the C library: {needed}"
    main = dict(bytes=4032, module=program.name, file="main.cpp", function="main")
    yield from sites_missing(folder, program, plugin, sites=[main, PLUGIN])


def preloaded_faults(project, prefix, plugin, folder):
    """Of a C program, without any search path for libraries, alone and with a library of the suite that it loads."""
    program = folder / "plain"
    run("cc", "-g", project / "plain.c", "-o", program, "-ldl")
    libraries = only(prefix, "libvbx_mem_preload.so").parent
    preload = f"{libraries}/libtbbamalloc.so {libraries}/libvbx_mem_preload.so"
    main = dict(bytes=4032, module="plain", file="plain.c", function="main")
    yield from sites_missing(folder, program, sites=[main], LD_PRELOAD=preload)
    yield from sites_missing(folder, program, plugin, sites=[main, PLUGIN], LD_PRELOAD=preload)
    # Without the shim in front the host still works, and is told why it has no report.
    untracked = run(program, plugin, cwd=folder, env=dict(os.environ, TARVANE_MEM_PROFILE_PER_FILELINE="1"))
    if "nothing can be tracked" not in untracked or not untracked.startswith("done\n"):
        yield f"{program} without the shim: {untracked}"


def outside_faults(project, prefix, folder, compiler):
    for build in (build_with_cmake, build_with_pkg_config):
        programs, plugin = build(project, prefix, folder, compiler)
        for program in programs:
            yield from linked_faults(program, plugin, folder)
    yield from preloaded_faults(project, prefix, plugin, folder)


def expected_files(libraries, headers, version):
    names = ["libtbbamalloc.so", f"libvbx_mem.so.{version.split('.')[0]}", f"libvbx_mem.so.{version}",
             "libvbx_mem_preload.so"]
    built_with = ["libvbx_mem.so", "cmake/vbx_mem/vbx_mem-config.cmake", "cmake/vbx_mem/vbx_mem-config-version.cmake",
                  "pkgconfig/vbx_mem.pc"]
    return {RUNTIME: {"usr/share/man/man7/vbx_mem.7.gz", *(f"{libraries}/{name}" for name in names)},
            DEVELOPMENT: {*(f"{libraries}/{name}" for name in built_with),
                          *(f"usr/include/{path.relative_to(headers)}" for path in headers.rglob("*.h"))}}


def content_faults(name, raw, expected, version):
    files = {str(path.relative_to(raw)) for path in raw.rglob("*") if path.is_symlink() or path.is_file()}
    control = {file.removeprefix("DEBIAN/") for file in files if file.startswith("DEBIAN/")}
    files -= {f"DEBIAN/{file}" for file in control}
    if files != expected:
        yield f"{name}: missing {sorted(expected - files)}, not expected {sorted(files - expected)}"
    # No scripts: what others depend on, and the loader's list of libraries, are lists and a trigger.
    if control != {"control", "md5sums"} | ({"shlibs", "triggers"} if name == RUNTIME else set()):
        yield f"{name}: its control files are {sorted(control)}"
    fields = dict(re.findall(r"^(\w+): (.*)$", (raw / "DEBIAN/control").read_text(), re.MULTILINE))
    if name == DEVELOPMENT:
        if fields["Depends"] != f"{RUNTIME} (= {version})":
            yield f"{name} depends on {fields['Depends']}"
        return
    dynamic = "".join(run("readelf", "-dW", raw / file) for file in expected if ".so" in file)
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)) - {Path(file).name for file in expected}
    owners = {run("dpkg", "-S", f"*/{library}").split(":")[0] for library in needed}
    if owners != {word.split()[0] for word in fields["Depends"].split(",")}:
        yield f"{name} depends on {fields['Depends']}, its libraries on {sorted(owners)}"


def prefix_faults(build, project, folder, compiler):
    run("cmake", "--install", build, "--prefix", folder / "installed")
    prefix = Path(shutil.move(folder / "installed", folder / "moved"))
    yield from outside_faults(project, prefix, folder, compiler)
    if not (prefix / "share/man/man7/vbx_mem.7").is_file():
        yield "the manual page is missing"


def package_faults(build, project, folder, compiler, headers, version):
    run("cpack", "--config", build / "CPackConfig.cmake", "-B", folder)
    libraries = "usr/lib/" + run(compiler, "-print-multiarch").strip()
    for package, expected in expected_files(libraries, headers, version).items():
        (archive,) = folder.glob(f"{package}_*.deb")
        run("dpkg-deb", "-R", archive, folder / package)
        yield from content_faults(package, folder / package, expected, version)
        run("dpkg-deb", "-x", archive, folder / "root")
    # What an installation into the host's own root would give: the loader knows the folder.
    os.environ["LD_LIBRARY_PATH"] = str(folder / "root" / libraries)
    (folder / "programs").mkdir()
    yield from outside_faults(project, folder / "root/usr", folder / "programs", compiler)


def main(build, project, compiler, headers, version):
    found = []
    with tempfile.TemporaryDirectory() as prefix, tempfile.TemporaryDirectory() as packages:
        found += prefix_faults(build, project, Path(prefix), compiler)
        if (build / "CPackConfig.cmake").is_file():
            found += package_faults(build, project, Path(packages), compiler, headers, version)
    print("\n".join(found) or "the product works linked, preloaded and loaded at run time")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3], Path(sys.argv[4]), sys.argv[5]))
