#!/usr/bin/env bash
# Uses the library as another project would.
#
#   Tests/Install/check.sh cmake BUILD       installs BUILD, moves the tree, find_package(Infra)
#   Tests/Install/check.sh pkg-config BUILD  the same by pkg-config
#   Tests/Install/check.sh subproject        add_subdirectory of the source tree
#
# Ends 0 when the consumer builds, runs and its line arrives.
set -euo pipefail

here=$(cd "$(dirname "$0")" && pwd)
tree=$(cd "$here/../.." && pwd)
way=${1:?usage: check.sh cmake|pkg-config|subproject [BUILD]}
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix="$scratch/moved prefix"

fail() {
    echo "check.sh: $*" >&2
    exit 1
}

# A prefix with a blank that is not the one installed to: no absolute path may be left in the files.
install_moved() {
    cmake --install "$1" --prefix "$scratch/installed" >"$scratch/install.log" ||
        fail "cmake --install: $(<"$scratch/install.log")"
    mv "$scratch/installed" "$prefix"
    if grep -rlF "$tree/" "$prefix" --include=*.cmake --include=*.pc --include=*.h; then
        fail "the files above name the source tree"
    fi
}

run_consumer() {
    local output
    output=$("$@") || fail "the consumer ended with $?: $output"
    [[ $output == *"consumer speaks"* ]] || fail "no log line in: $output"
    [[ $output == *"logged before main"* ]] || fail "no line from before main in: $output"
    echo "$output"
}

case $way in
cmake)
    install_moved "$2"
    cmake -S "$here/Consumer" -B "$scratch/build" -DCMAKE_PREFIX_PATH="$prefix" \
        -DCMAKE_BUILD_TYPE=Release
    cmake --build "$scratch/build"
    run_consumer "$scratch/build/consumer"
    ;;
pkg-config)
    install_moved "$2"
    pc=$(find "$prefix" -name Infra.pc)
    export PKG_CONFIG_PATH="${pc%/*}"
    [[ $(pkg-config --modversion Infra) == 3.0.0 ]] || fail "another version in $pc"
    eval "flags=($(pkg-config --cflags --libs Infra))"
    "${CXX:-c++}" -std=c++17 "$here/Consumer/main.cpp" "${flags[@]}" -o "$scratch/consumer"
    libdir=$(pkg-config --variable=libdir Infra)
    run_consumer env LD_LIBRARY_PATH="${libdir//\\/}" "$scratch/consumer"
    ;;
subproject)
    cmake -G Ninja -S "$here/Subproject" -B "$scratch/build" -DINFRA_TREE="$tree"
    cmake --build "$scratch/build" --target embedded
    ;;
*)
    fail "no way \"$way\""
    ;;
esac
