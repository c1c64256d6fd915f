#!/bin/sh
# Writes the bundled example set with obx gen: one source per way of storing blocks, all
# with the same schema folder. The test ExampleData checks that examples/ is what this
# writes. Usage: scripts/make-examples.sh OBX ROOT   (ROOT/schema and ROOT/data are made)
set -eu
obx=$1
root=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
# The host name goes into the data files: a fixed one gives the same bytes everywhere.
export OBX_HOST_NAME=example
gen() {
    name=$1
    shift
    "$obx" -v 4 gen --out "$work/$name" --seconds 3 --rate 10 "$@" >/dev/null
}
# obx_read names a file's records by its file name, which holds its first time: one start
# per source keeps the names apart.
gen plain --sources "node[1-1]" --start 1700000000000000 --compress none
gen gzip_pages --sources "node[2-2]" --start 1700000100000000 --compress gzip
gen snappy_pages --sources "node[3-3]" --start 1700000200000000 --compress snappy
gen gzip_files --sources "node[4-4]" --start 1700000300000000 --compress none --gzip-files
mkdir -p "$root/schema" "$root/data"
cp "$work/plain/schema/"* "$root/schema/"
for name in plain gzip_pages snappy_pages gzip_files; do
    cp -R "$work/$name/data/." "$root/data/"
done
