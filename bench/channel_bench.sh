#!/usr/bin/env bash
# Run by hand (as root: it mounts). In one run, on the same card, the same data written
# sequentially
#   - through the mount (dd, 1 MiB blocks) and
#   - through the direct channel (veltctl write, 64 KiB and 4 KiB records, merged by the daemon),
# into the root of a plain FAT32 card and into a reserved folder of a VELT card, and read back
# both ways (to /dev/null: the data is compared after the timing). Each figure is the best of
# ROUNDS runs (default 3), which keeps other load on the machine out of the comparison. Prints
# MiB/s for each and the channel/mount ratio.
# Usage: bench/channel_bench.sh [MiB, default 512]   (BUILD_DIR picks the build directory)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
mib=${1:-512}
build=${BUILD_DIR:-$top/build}

cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target velt.fuse veltctl mkfs.velt >/dev/null

work=$(mktemp -d /tmp/velt_channel_bench_XXXXXX)
velt_pid=""
cleanup() {
  set +e
  grep -q " $work/mnt " /proc/mounts && fusermount3 -u "$work/mnt"
  [ -n "$velt_pid" ] && wait "$velt_pid" 2>/dev/null
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
rate() { awk -v m="$mib" -v a="$1" -v b="$2" 'BEGIN { printf "%.1f", m / (b - a) }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a > 0) printf "%.2f", b / a; else print "-" }'; }

export VELT_ROOT=$work/root
mkdir -p "$VELT_ROOT/dev" "$VELT_ROOT/tmp" "$work/mnt"
: >"$VELT_ROOT/dev/mmcblk0p1"
card=$VELT_ROOT/dev/velt
card_mib=$((mib * 5 + 1024))

# kind: plain (mkfs.fat, 4 KiB clusters) or velt (mkfs.velt, reserved folder REC whose files
# hold the whole test file).
make_card() {
  rm -f "$card"
  truncate -s "${card_mib}M" "$card"
  echo 'start=2048, type=c' | sfdisk -q "$card"
  if [ "$1" = plain ]; then
    mkfs.fat -F 32 -s 8 --offset 2048 "$card" $(((card_mib - 1) * 1024)) >/dev/null
  else
    "$build/mkfs.velt" /dev/mmcblk0p1 "REC:60:$((mib + 16))" >/dev/null
  fi
}
mount_velt() {
  # Its own name: a format or exclusive open elsewhere unmounts daemons listed as velt.fuse.
  "$build/velt.fuse" -f -o fsname=velt-bench "$work/mnt" >>"$work/velt.log" 2>&1 &
  velt_pid=$!
  for _ in $(seq 1 3000); do
    grep -q " $work/mnt " /proc/mounts && stat "$work/mnt" >/dev/null 2>&1 && return 0
    sleep 0.01
  done
  echo "velt.fuse did not mount; see $work/velt.log" >&2
  exit 1
}
umount_velt() {
  fusermount3 -u "$work/mnt"
  wait "$velt_pid" || true
  velt_pid=""
}

src=$work/source.bin
head -c "$((mib * 1024 * 1024))" /dev/urandom >"$src"
ctl="$build/veltctl -t 60000"

rounds=${ROUNDS:-3}
# best KEY SECONDS: keeps the highest rate seen for KEY.
declare -A r
best() {
  local v
  v=$(awk -v m="$mib" -v t="$2" 'BEGIN { printf "%.1f", m / t }')
  if [ -z "${r[$1]:-}" ] || awk -v a="$v" -v b="${r[$1]}" 'BEGIN { exit !(a > b) }'; then
    r[$1]=$v
  fi
}
timed() { local s e; s=$(now); "$@"; e=$(now); awk -v a="$s" -v b="$e" 'BEGIN { print b - a }'; }

for kind in plain velt; do
  dir=$work/mnt
  [ "$kind" = velt ] && dir=$work/mnt/REC
  make_card "$kind"
  mount_velt
  for round in $(seq 1 "$rounds"); do
    rm -f "$dir"/*.bin
    best "$kind.fuse.write" "$(timed dd if="$src" of="$dir/fuse.bin" bs=1M status=none)"
    best "$kind.channel64.write" "$(timed $ctl write -b 65536 "$dir/channel64.bin" <"$src" 2>/dev/null)"
    best "$kind.channel4.write" "$(timed $ctl write -b 4096 "$dir/channel4.bin" <"$src" 2>/dev/null)"
    # Each read opens its file anew, which drops the kernel's cached pages of it.
    best "$kind.fuse.read" "$(timed dd if="$dir/fuse.bin" of=/dev/null bs=1M count="$mib" status=none)"
    best "$kind.channel.read" "$(timed sh -c "$ctl read -b 1048576 '$dir/channel64.bin' >/dev/null")"
  done
  # Everything written either way holds the data.
  cmp -n "$((mib * 1024 * 1024))" "$dir/fuse.bin" "$src"
  $ctl read -b 1048576 "$dir/channel4.bin" | cmp - "$src"
  $ctl read -b 1048576 "$dir/channel64.bin" | cmp - "$src"
  umount_velt
done

printf '\n%s MiB, best of %s, MiB/s                  %10s %10s %16s\n' "$mib" "$rounds" "mount" \
  "channel" "channel/mount"
for kind in plain velt; do
  case $kind in
    plain) where="root of a FAT32 card" ;;
    velt) where="reserved folder" ;;
  esac
  for row in "write 64 KiB records:channel64.write:fuse.write" \
    "write 4 KiB records:channel4.write:fuse.write" "read:channel.read:fuse.read"; do
    IFS=: read -r what chan fuse <<<"$row"
    printf '%-20s, %-21s %10s %10s %16s\n' "$what" "$where" "${r[$kind.$fuse]}" \
      "${r[$kind.$chan]}" "$(ratio "${r[$kind.$fuse]}" "${r[$kind.$chan]}")"
  done
done
