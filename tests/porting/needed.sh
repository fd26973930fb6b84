#!/bin/sh
# needed.sh READELF PROGRAM...: fails when a program needs the C++ runtime library, which small devices do not have.
set -eu
readelf=$1
shift
for program in "$@"; do
    needed=$("$readelf" --dynamic --wide "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    echo "$needed"
    echo "$needed" | grep -q '^libc\.' || { echo "$0: $program does not tell what it needs" >&2; exit 1; }
    if echo "$needed" | grep -E '^lib(stdc\+\+|c\+\+|gcc_s|supc\+\+)'; then
        echo "$0: $program needs that" >&2
        exit 1
    fi
done
