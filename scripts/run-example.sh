#!/bin/sh
# Runs obx_read on the bundled example data (or shows the usage until there is some), then
# lists the commands of the companion obx, makes a small data folder with obx gen and
# re-exports it with obx_read -f bin.
set -eu
bin=${1:-build/release/obx_read}
obx=${2:-$(dirname "$bin")/obx}
if [ -d examples/data ] && [ -n "$(ls -A examples/data 2>/dev/null)" ]; then
    "$bin" -s examples/schema -d examples/data
    echo
else
    "$bin" -h
fi
echo
"$obx" help

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
echo
echo "\$ obx gen --out \$work/gen --sources 'node[1-2]' --seconds 10 --compress gzip"
"$obx" gen --out "$work/gen" --sources 'node[1-2]' --seconds 10 --compress gzip
mkdir "$work/bin"
echo
echo "\$ obx_read -v 3 -s \$work/gen/schema -d \$work/gen/data -f bin --output-dir \$work/bin"
"$bin" -v 3 -s "$work/gen/schema" -d "$work/gen/data" -f bin --output-dir "$work/bin" >/dev/null
(cd "$work/bin" && find . -type f | sort)
