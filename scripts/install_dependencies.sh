#!/bin/sh
# Installs the Debian packages that are missing. This is the one list of them.
#
#   scripts/install_dependencies.sh build    what the libraries, their packages and the examples need
#   scripts/install_dependencies.sh test     the above and what the tests, benchmarks and analyses need
set -eu

build_packages="g++ cmake ninja-build pkg-config binutils dpkg-dev
    libtbb-dev libboost-filesystem-dev libboost-iostreams-dev libdw-dev libelf-dev libiberty-dev"
test_packages="libgtest-dev libbenchmark-dev clang clang-format clang-tidy
    python3 perl git sqlite3 doxygen mandoc groff-base fakeroot"

case "${1:-}" in
build) wanted=$build_packages ;;
test) wanted="$build_packages $test_packages" ;;
*)
    echo "usage: $0 build|test" >&2
    exit 2
    ;;
esac

missing=
for package in $wanted; do
    # "installed" alone counts: a removed package leaves its configuration behind and is still listed.
    case "$(dpkg-query -W -f '${Status}' "$package" 2>/dev/null || true)" in
    *" installed") ;;
    *) missing="$missing $package" ;;
    esac
done
[ -n "$missing" ] || exit 0

if [ "$(id -u)" -eq 0 ]; then
    as_root=env
elif command -v sudo >/dev/null; then
    as_root="sudo env"
else
    echo "These packages are missing, and installing them takes root or sudo:$missing" >&2
    exit 1
fi

install_missing() {
    # shellcheck disable=SC2086 # a list of words
    $as_root DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends $missing
}
echo "Installing:$missing"
# A fresh machine has no package lists; one that has them needs no refresh unless they are too old to serve.
install_missing >/dev/null 2>&1 && exit 0
$as_root apt-get update -q
install_missing
