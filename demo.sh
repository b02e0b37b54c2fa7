#!/bin/sh
# Shows the library at work: the example suite, which is linked with it, then an unmodified program of the
# system with it preloaded. Debian 12; installs the packages that are missing.
set -eu
cd "$(dirname "$0")"
root=$PWD
build=$root/build/demo

scripts/install_dependencies.sh build
cmake --preset release -B "$build" -DVBX_BUILD_TESTS=OFF -DVBX_BUILD_BENCH=OFF >"$root/.demo.log" 2>&1 ||
    { cat "$root/.demo.log"; exit 1; }
mv "$root/.demo.log" "$build/demo.log"
echo "Building into $build ..."
cmake --build "$build" -j "$(nproc)" >>"$build/demo.log" 2>&1 || { tail -40 "$build/demo.log"; exit 1; }

# Tab-separated columns in, a few aligned ones out. A row of the per-site report is long: the address is left
# out, the path of the file cut to its name.
show_sites() {
    awk -F '\t' -v rows="$2" '
        function cut(text, width) { return length(text) > width ? substr(text, 1, width - 1) "~" : text }
        NR == 3 { printf "%13s %13s %13s %9s  %-14s %-22s %s\n", "current bytes", "peak bytes", "total bytes",
                         "blocks", "module", "source", "function" }
        NR > 3 && NF == 15 && shown < rows {
            file = $13; sub(".*/", "", file)
            source = $1 == "OTHER" ? "" : (file == "Unknown" ? "no debug info" : file ":" $14)
            printf "%13s %13s %13s %9s  %-14s %-22s %s\n", $2, $4, $5, $11,
                   $1 == "OTHER" ? "OTHER" : cut($12, 14), cut(source, 22), cut($15, 44)
            ++shown
        }' "$1"
}
show_modules() {
    awk -F '\t' -v rows="$2" '
        NR >= 3 && NF >= 9 && shown <= rows { printf "%-16s %14s %16s %15s\n", $1, $2, $(NF - 5), $NF; ++shown }' "$1"
}
show_statistics() {
    awk -F '\t' 'NF == 5 { printf "%-18s %16s %16s %18s %16s\n", $1, $2, $3, $4, $5 }' "$1"
}
show_timeline() {
    awk -F '\t' '
        NR >= 3 && NF > 1 && !/^Time spent/ {
            printf "%-18s", $1
            for (cell = 2; cell <= NF; ++cell) printf " %12s", $cell
            print ""
        }' "$1"
}
heading() { printf '\n== %s\n\n' "$1"; }

runs=$build/runs
rm -rf "$runs" && mkdir -p "$runs"
cd "$runs"

heading "1. The example suite, linked with the library: word_index and its two shared libraries"
echo '$ TARVANE_MEM_PROFILE_PER_FILELINE=1 TARVANE_MEM_CHECK_LEAKS=1 word_index'
TARVANE_MEM_PROFILE_PER_FILELINE=1 TARVANE_MEM_CHECK_LEAKS=1 "$build/examples/suite/word_index"
printf '\nPer allocation site (mem_tbb_fileline.word_index.log), highest peak first:\n\n'
show_sites mem_tbb_fileline.word_index.log 8
printf '\nLeaks (mem_tbb_leak_warning.word_index.log), those of the suite:\n\n'
grep -E '^(text_source|word_table|word_index) leaked' mem_tbb_leak_warning.word_index.log | sed "s|$root/||"

heading "2. The same program by phases: its profile bins and tags, and how its memory moves"
cat <<'END'
$ export TARVANE_MEM_PROFILE_PER_BIN=1 TARVANE_MEM_PROFILE_BIN_TAG_PLOT=1 TARVANE_MEM_PROFILE_PER_LIBRARY=1
$ TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD=250 word_index
END
TARVANE_MEM_PROFILE_PER_BIN=1 TARVANE_MEM_PROFILE_BIN_TAG_PLOT=1 TARVANE_MEM_PROFILE_PER_LIBRARY=1 \
    TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD=250 "$build/examples/suite/word_index"
printf '\nPer bin, a phase or one of its steps (mem_tbb_pbin_stats.word_index.log):\n\n'
show_statistics mem_tbb_pbin_stats.word_index.log
printf '\nPer tag, a category of phases (mem_tbb_pbin_tag_stats.word_index.log):\n\n'
show_statistics mem_tbb_pbin_tag_stats.word_index.log
printf '\nBytes of each tag, a row a sample (mem_tbb_pbin_tag_timeline_detailed.word_index.log):\n\n'
show_timeline mem_tbb_pbin_tag_timeline_detailed.word_index.log
printf '\nBytes of each module, a row a sample (mem_tbb_timeline.word_index.log):\n\n'
show_timeline mem_tbb_timeline.word_index.log

# A minimal system has perl, but no Python.
# Python's own pools ask the kernel and not malloc; the variable sends its objects through malloc.
if [ -x /usr/bin/python3 ]; then
    export PYTHONMALLOC=malloc
    program=/usr/bin/python3
    text='print(len({str(i): [i] * 10 for i in range(50000)}))'
    option=-c
else
    program=/usr/bin/perl
    text='my %h = map { $_ => [(1) x 10] } 1 .. 50000; print scalar(keys %h), "\n"'
    option=-e
fi
heading "3. An unmodified program, preloaded: $program"
cat <<END
\$ export LD_PRELOAD="libtbbamalloc.so libvbx_mem_preload.so" TARVANE_MEM_PRELOAD_TAG=%e
\$ TARVANE_MEM_PROFILE_PER_FILELINE=1 mem_profile_with_incomplete_fileline_info=on \\
  ${PYTHONMALLOC:+PYTHONMALLOC=malloc }${program##*/} $option '$text'
END
env LD_PRELOAD="$build/lib/libtbbamalloc.so $build/lib/libvbx_mem_preload.so" TARVANE_MEM_PRELOAD_TAG=%e \
    TARVANE_MEM_PROFILE_PER_FILELINE=1 mem_profile_with_incomplete_fileline_info=on \
    "$program" "$option" "$text" 2>messages
tag=${program##*/}
printf '\nPer allocation site (mem_tbb_fileline.%s.log); without debug information the function has to do:\n\n' "$tag"
show_sites "mem_tbb_fileline.$tag.log" 8
printf '\nPer module (mem_tbb_subsystem.%s.log):\n\n' "$tag"
show_modules "mem_tbb_subsystem.$tag.log" 6
printf '\nAll reports are in %s\n' "$runs"
