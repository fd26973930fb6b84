#!/bin/sh
# needed.sh READELF PROGRAM: fails when the program needs the C++ runtime library, which small devices do not have.
set -eu
needed=$("$1" --dynamic --wide "$2" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
echo "$needed"
echo "$needed" | grep -q '^libc\.' || { echo "$0: $2 does not tell what it needs" >&2; exit 1; }
if echo "$needed" | grep -E '^lib(stdc\+\+|c\+\+|gcc_s|supc\+\+)'; then
    echo "$0: $2 needs that" >&2
    exit 1
fi
