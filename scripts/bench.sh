#!/bin/sh
# Micro-benchmarks of the hot functions.
set -eu
build=${1:-build/release}
if [ -x "$build/bench/obx_bench" ]; then
    "$build/bench/obx_bench"
fi
