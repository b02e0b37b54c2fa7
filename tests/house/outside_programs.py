"""Programs outside of the source tree use an installed product: do they find it, and does it report them?"""
import os
import re
import subprocess

SITE = r"^[0-9A-F]{{16}}\t{bytes}\t.*\t{module}\t.*/{file}\t\d+\t{function}(\(\))?$"
PLUGIN = dict(bytes=5376, module="plugin", file="plugin.cpp", function="plugin_work")


def run(*command, **options):
    options = {"timeout": 120, **options}
    result = subprocess.run([str(word) for word in command], capture_output=True, text=True, **options)
    if result.returncode != 0:
        raise SystemExit(f"{command}: status {result.returncode}\n{result.stdout}{result.stderr}")
    return result.stdout + result.stderr


def only(prefix, name):
    (path,) = (path for path in prefix.rglob(name) if path.name == name)
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


def faults(project, prefix, folder, compiler):
    for build in (build_with_cmake, build_with_pkg_config):
        programs, plugin = build(project, prefix, folder, compiler)
        for program in programs:
            yield from linked_faults(program, plugin, folder)
    yield from preloaded_faults(project, prefix, plugin, folder)
