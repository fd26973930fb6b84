#!/bin/sh
# format.sh CLANG_FORMAT ROOT: fails when a source file is not as clang-format would have it.
set -eu
cd "$2"
find src linux lab tests bench \( -name '*.cpp' -o -name '*.h' -o -name '*.c' \) -exec "$1" --dry-run -Werror {} +
