#!/bin/sh
# Runs obx_read on the bundled example data (or shows the usage until there is some).
set -eu
bin=${1:-build/release/obx_read}
if [ -d examples/data ] && [ -n "$(ls -A examples/data 2>/dev/null)" ]; then
    exec "$bin" -s examples/schema -d examples/data
fi
exec "$bin" -h
