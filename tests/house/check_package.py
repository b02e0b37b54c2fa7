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

AS_ROOT = [] if os.geteuid() == 0 else ["fakeroot"]
RUNTIME, DEVELOPMENT = "libvbx-mem", "libvbx-mem-dev"


def expected_files(libraries, headers, version):
    major = version.split(".")[0]
    names = ["libtbbamalloc.so", f"libvbx_mem.so.{major}", f"libvbx_mem.so.{version}", "libvbx_mem_preload.so"]
    runtime = {"usr/share/man/man7/vbx_mem.7.gz", *(f"{libraries}/{name}" for name in names)}
    package = ["cmake/vbx_mem/vbx_mem-config.cmake", "cmake/vbx_mem/vbx_mem-config-version.cmake", "pkgconfig/vbx_mem.pc"]
    development = {f"{libraries}/{name}" for name in ["libvbx_mem.so", *package]}
    development |= {f"usr/include/{path.relative_to(headers)}" for path in headers.rglob("*.h")}
    return {RUNTIME: runtime, DEVELOPMENT: development}


def content_faults(file, expected):
    rows = [line.split(maxsplit=5) for line in run("dpkg-deb", "-c", file).splitlines()]
    names = {row[5].split(" -> ")[0].removeprefix("./") for row in rows if not row[0].startswith("d")}
    if names != expected:
        yield f"{file.name}: missing {sorted(expected - names)}, not expected {sorted(names - expected)}"
    modes = {"d": "drwxr-xr-x", "-": "-rw-r--r--", "l": "lrwxrwxrwx"}
    yield from (f"{file.name}: {row}" for row in rows if row[0] != modes[row[0][0]] or row[1] != "root/root")


def control_faults(files, folder, libraries, version):
    fields = {name: dict(re.findall(r"^(\S+): (.*)$", run("dpkg-deb", "-f", file), re.MULTILINE))
              for name, file in files.items()}
    architecture = run("dpkg", "--print-architecture").strip()
    for name, row in fields.items():
        found = (row["Package"], row["Version"], row["Architecture"], row["Section"])
        if found != (name, version, architecture, "libs" if name == RUNTIME else "libdevel"):
            yield f"{files[name].name}: {found}"
    if fields[DEVELOPMENT]["Depends"] != f"{RUNTIME} (= {version})":
        yield f"{DEVELOPMENT} depends on {fields[DEVELOPMENT]['Depends']}"
    run("dpkg-deb", "-R", files[RUNTIME], folder / "raw")
    control = sorted(path.name for path in (folder / "raw/DEBIAN").iterdir())
    if control != ["control", "md5sums", "shlibs", "triggers"]:
        yield f"{RUNTIME}: no scripts, but a list for other packages and a trigger are expected: {control}"
    # What the loader needs is owned by packages that are depended on, and what others need is told to them.
    owners = set()
    for library in (folder / "raw" / libraries).iterdir():
        dynamic = run("readelf", "-dW", library)
        soname = re.search(r"\(SONAME\).*\[(.*)\]", dynamic).group(1)
        if not (library.parent / soname).exists() or "RUNPATH" in dynamic:
            yield f"{library.name}: {dynamic}"
        if "vbx_mem.so" in soname and (folder / "raw/DEBIAN/shlibs").read_text() != (
                f"{soname.replace('.so.', ' ')} {RUNTIME} (>= {version})\n"):
            yield f"{soname}: {(folder / 'raw/DEBIAN/shlibs').read_text()}"
        for needed in set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic)) - {path.name for path in library.parent.iterdir()}:
            owners.add(run("dpkg", "-S", f"*/{needed}").split(":")[0])
    depends = {word.split()[0] for word in fields[RUNTIME]["Depends"].split(",")}
    if depends != owners:
        yield f"{RUNTIME} depends on {sorted(depends)}, its libraries on {sorted(owners)}"


def installed_faults(files, root, libraries, project, folder, compiler):
    database = root / "var/lib/dpkg"
    for name in ("info", "updates", "triggers"):
        (database / name).mkdir(parents=True)
    shutil.copy("/var/lib/dpkg/status", database / "status")
    (root / "var/log").mkdir()
    os.environ["PATH"] += ":/usr/sbin:/sbin"  # dpkg insists on tools that not every user has in the path
    dpkg = [*AS_ROOT, "dpkg", f"--root={root}", "--force-not-root"]

    run(*dpkg, "--install", *files.values())
    # The one thing that an installation into the host's own root would give: the loader knows the folder.
    os.environ["LD_LIBRARY_PATH"] = str(root / libraries)
    yield from outside_programs.faults(project, root / "usr", folder, compiler)
    if damaged := run(*dpkg, "--verify", RUNTIME, DEVELOPMENT):
        yield damaged
    run(*dpkg, "--purge", DEVELOPMENT, RUNTIME)
    left = [path for path in root.rglob("*") if not path.is_relative_to(root / "var")]
    left += [path for path in (database / "info").glob("libvbx*")]
    yield from (f"left behind: {path}" for path in left)


def main(build, project, compiler, headers, version):
    with tempfile.TemporaryDirectory() as name:
        folder = Path(name)
        (folder / "packages").mkdir()
        run("cpack", "--config", build / "CPackConfig.cmake", "-B", folder / "packages")
        files = {package: next((folder / "packages").glob(f"{package}_*.deb")) for package in (RUNTIME, DEVELOPMENT)}
        libraries = "usr/lib/" + run(compiler, "-print-multiarch").strip()
        expected = expected_files(libraries, headers, version)
        found = [fault for package in files for fault in content_faults(files[package], expected[package])]
        found += control_faults(files, folder, libraries, version)
        (folder / "programs").mkdir()
        found += installed_faults(files, folder / "root", libraries, project, folder / "programs", compiler)
    print("\n".join(found) or "the packages install, work and go without a trace")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(Path(sys.argv[1]), Path(sys.argv[2]), sys.argv[3], Path(sys.argv[4]), sys.argv[5]))
