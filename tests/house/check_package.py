#!/usr/bin/env python3
"""The Debian packages: what is in them, what they depend on, that they install, work and go without a trace.

    check_package.py BUILD_FOLDER PROJECT_FOLDER CXX HEADER_FOLDER VERSION

They are installed into a root of their own with the host's list of packages, so what they depend on is looked up as it
would be there; the host itself is not touched.
"""
import os
import re
import shutil
import sys
import tempfile
from pathlib import Path

import outside_programs
from outside_programs import run

RUNTIME, DEVELOPMENT = "libvbx-mem", "libvbx-mem-dev"


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
    own = {Path(file).name for file in expected}
    if not set(re.findall(r"\(SONAME\).*\[(.*)\]", dynamic)) <= own:
        yield f"{name}: a library without a file of its soname"
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)) - own
    owners = {run("dpkg", "-S", f"*/{library}").split(":")[0] for library in needed}
    if owners != {word.split()[0] for word in fields["Depends"].split(",")}:
        yield f"{name} depends on {fields['Depends']}, its libraries on {sorted(owners)}"


def installed_faults(packages, root, libraries, project, folder, compiler):
    database = root / "var/lib/dpkg"
    for name in ("var/log", "var/lib/dpkg/info", "var/lib/dpkg/updates", "var/lib/dpkg/triggers"):
        (root / name).mkdir(parents=True)
    shutil.copy("/var/lib/dpkg/status", database / "status")
    os.environ["PATH"] += ":/usr/sbin:/sbin"  # dpkg insists on tools that not every user has in the path
    dpkg = [*([] if os.geteuid() == 0 else ["fakeroot"]), "dpkg", f"--root={root}", "--force-not-root"]

    run(*dpkg, "--install", *packages)
    # The one thing that an installation into the host's own root would give: the loader knows the folder.
    os.environ["LD_LIBRARY_PATH"] = str(root / libraries)
    yield from outside_programs.faults(project, root / "usr", folder, compiler)
    run(*dpkg, "--purge", DEVELOPMENT, RUNTIME)
    left = [path for path in root.rglob("*") if not path.is_relative_to(root / "var") or path.name.startswith("libvbx")]
    yield from (f"left behind: {path}" for path in left)


def main(build, project, compiler, headers, version):
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        run("cpack", "--config", build / "CPackConfig.cmake", "-B", folder)
        libraries = "usr/lib/" + run(compiler, "-print-multiarch").strip()
        found = []
        for package, expected in expected_files(libraries, headers, version).items():
            run("dpkg-deb", "-R", next(folder.glob(f"{package}_*.deb")), folder / package)
            found += content_faults(package, folder / package, expected, version)
        (folder / "programs").mkdir()
        found += installed_faults(folder.glob("*.deb"), folder / "root", libraries, project, folder / "programs", compiler)
    print("\n".join(found) or "the packages install, work and go without a trace")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3], Path(sys.argv[4]), sys.argv[5]))
