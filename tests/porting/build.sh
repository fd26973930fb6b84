#!/bin/sh
# build.sh ROOT BUILD INCLUDE CMAKE-OPTION...: builds the daemon on the platform of stubs into BUILD. The headers of the
# libraries that linux/ uses are out of sight in the folder INCLUDE meanwhile.
set -eu
root=$1
build=$2
include=$3
shift 3
set -- "-DVYRWRAP_PLATFORM=$root/tests/porting/stubs" "$@"
rm -rf "$build"

if [ "${LAB:-}" = host ]; then
    echo "LAB=host: the headers of the libraries stay in sight"
    cmake -S "$root" -B "$build" "$@"
    exec cmake --build "$build"
fi

hide=
for folder in hiredis event2 google protobuf-c; do
    [ ! -d "$include/$folder" ] || hide="$hide --tmpfs $include/$folder"
done
for header in "$include"/event.h "$include"/ev*.h; do
    [ ! -f "$header" ] || hide="$hide --ro-bind /dev/null $header"
done
[ -n "$hide" ] || { echo "$0: $include has none of the headers that were to be hidden" >&2; exit 1; }

# shellcheck disable=SC2016,SC2086  # the inner shell's variables; options
exec bwrap --dev-bind / / $hide sh -euc '
    root=$1 build=$2 include=$3
    shift 3
    for header in "$include"/hiredis/hiredis.h "$include"/event2/event.h; do
        [ ! -e "$header" ] || { echo "$header is still in sight" >&2; exit 1; }
    done
    cmake -S "$root" -B "$build" "$@"
    exec cmake --build "$build"' sh "$root" "$build" "$include" "$@"
