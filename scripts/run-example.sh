#!/bin/sh
# Runs obx_read on the bundled example data (or shows the usage until there is some), then
# lists the commands of the companion obx.
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
