#!/usr/bin/env bash
# Builds the seeds of the fuzz corpora: small whole cards (partition table and FAT32 file
# system made by the ordinary tools, filled through the library) and channel request streams.
# Usage: make_seeds.sh BUILD_DIR
set -euo pipefail
out=$(cd "$(dirname "$0")" && pwd)/corpus/card
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

# card NAME SIZE_KIB SECTORS_PER_CLUSTER: an MBR with one FAT32-LBA partition from sector 8.
card() {
  local img=$tmp/$1.img sectors=$(($2 * 2))
  truncate -s "$2K" "$img"
  printf 'label: dos\nstart=8, size=%d, type=c\n' $((sectors - 8)) | sfdisk -q "$img" >/dev/null
  mkfs.fat -F 32 -s "$3" -S 512 -R 8 -f 2 --offset 8 "$img" $(((sectors - 8) / 2)) >/dev/null 2>&1
  echo "$img"
}

seed=${1:?usage: make_seeds.sh BUILD_DIR}/fuzz/fuzz_make_seed
img=$(card plain-tree 200 1)
"$seed" "$img"
cp "$img" "$out/plain-tree.card"

img=$(card tree-2k-clusters 320 4)
"$seed" "$img"
cp "$img" "$out/tree-2k-clusters.card"

img=$(card empty 128 1)
cp "$img" "$out/empty.card"

"$seed" channel "$(dirname "$out")/channel"
