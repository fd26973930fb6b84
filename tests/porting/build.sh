#!/bin/sh
# build.sh ROOT BUILD INCLUDE CMAKE-OPTION...: builds the daemon on a copy of the platform of stubs into BUILD, as
# docs/porting.md says, with nanopb's headers elsewhere. The headers of the libraries that linux/ uses are out of sight in the
# folder INCLUDE meanwhile, and so is linux/ itself.
set -eu
root=$1
build=$2
include=$3
shift 3
device=$build.device
rm -rf "$build" "$device"
cp -r "$root/tests/porting/stubs" "$device"
mkdir "$device/nanopb"
cp "$include"/pb*.h "$device/nanopb"
set -- "-DVYRWRAP_PLATFORM=$device" "-DNANOPB_INCLUDE=$device/nanopb" "$@"

if [ "${LAB:-}" = host ]; then
    echo "LAB=host: the headers of the libraries stay in sight"
    cmake -S "$root" -B "$build" "$@"
    exec cmake --build "$build"
fi

hide=
for folder in hiredis event2 google protobuf-c; do
    [ ! -d "$include/$folder" ] || hide="$hide --tmpfs $include/$folder"
done
for header in "$include"/event.h "$include"/ev*.h "$include"/pb*.h; do
    [ ! -f "$header" ] || hide="$hide --ro-bind /dev/null $header"
done
[ -n "$hide" ] || { echo "$0: $include has none of the headers that were to be hidden" >&2; exit 1; }

# shellcheck disable=SC2016,SC2086  # the inner shell's variables; options
exec bwrap --dev-bind / / --tmpfs "$root/linux" $hide sh -euc '
    root=$1 build=$2 include=$3
    shift 3
    for header in "$include"/hiredis/hiredis.h "$include"/event2/event.h "$root"/linux/process.h; do
        [ ! -e "$header" ] || { echo "$header is still in sight" >&2; exit 1; }
    done
    cmake -S "$root" -B "$build" "$@"
    exec cmake --build "$build"' sh "$root" "$build" "$include" "$@"
