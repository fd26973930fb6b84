#!/bin/sh
# shell.sh SHELLCHECK ROOT: fails when shellcheck has something to say about a shell script of the project.
set -eu
cd "$2"
find . \( -name .git -o -path ./build \) -prune -o -type f -exec awk '
    FNR == 1 { if (/^#! ?\/bin\/(ba)?sh/) print FILENAME; nextfile }' {} + | sort | xargs "$1"
