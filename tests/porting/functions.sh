#!/bin/sh
# functions.sh DOCUMENT BUILD NM COMPILER: fails unless the tables of the document list exactly the symbols that the
# daemon's objects need and neither have themselves nor find in the C library and the compiler's own one.
set -eu
document=$1
build=$2
nm=$3
compiler=$4

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
trap 'exit 1' HUP INT TERM

# Prints the names that nm tells of the files given, with options.
names() {
    "$nm" --format=posix "$@" | sed 's/ .*//; s/@.*//; /:$/d; /^$/d' | sort -u
}

find "$build/src" -path '*vyrwrap_daemon.dir*' -name '*.o' -o -path '*platform_event.dir*' -name '*.o' >"$scratch/objects"
[ "$(wc -l <"$scratch/objects")" -gt 40 ] || { echo "$0: the objects are not in $build/src" >&2; exit 1; }

# shellcheck disable=SC2046  # paths of objects
names --undefined-only $(cat "$scratch/objects") >"$scratch/undefined"
{
    # shellcheck disable=SC2046
    names --defined-only $(cat "$scratch/objects")
    names --dynamic --defined-only "$("$compiler" -print-file-name=libc.so.6)"
    names --defined-only "$("$compiler" -print-libgcc-file-name)"
    printf '%s\n' _GLOBAL_OFFSET_TABLE_ __stack_chk_guard
} | sort -u >"$scratch/found"
comm -23 "$scratch/undefined" "$scratch/found" >"$scratch/needed"

# shellcheck disable=SC2016  # names between backticks
sed -n 's/^| `\([A-Za-z0-9_]*\)`.*/\1/p' "$document" | sort >"$scratch/listed"
if ! diff "$scratch/listed" "$scratch/needed"; then
    echo "$0: < is listed in $document, but is not needed; > is needed, but not listed" >&2
    exit 1
fi
echo "$(wc -l <"$scratch/needed") functions and variables"
