#!/usr/bin/env bash
# Run by hand (as root: it mounts and uses loop devices). In one run, on cards of the same size:
#   - a 1 GiB sequential write and read in 1 MiB blocks, and the creation of 1,000 files of
#     4 KiB, through velt.fuse and through fusefat (mounted rw+), with the ratios;
#   - the time from starting velt.fuse on a card with 100,000 files to the mount answering,
#     next to fsck.fat -n on the same card, and the daemon's resident memory per file.
# Usage: bench/fuse_bench.sh [card size, default 4G] [files for the start-up card, default 100000]
#                            [small files, default 1000]
# Each figure is printed as soon as it is measured; the table with the ratios comes at the end.
# fusefat's file creation slows down sharply as a folder grows (about 3 s for the first 100
# files, a minute for 300), so a run that must stay short passes a smaller third argument.
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
card_size=${1:-4G}
startup_files=${2:-100000}
small_files=${3:-1000}

scripts/setup
if ! command -v fusefat >/dev/null; then
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO="sudo"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends fusefat
fi

build=$top/build
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j"$(nproc)" --target velt.fuse >/dev/null

work=$(mktemp -d /tmp/velt_bench_XXXXXX)
velt_pid=""
fusefat_pid=""
loop_dev=""
cleanup() {
  set +e
  for m in "$work"/mnt_*; do
    grep -q " $m " /proc/mounts && { fusermount3 -u "$m" 2>/dev/null || umount -l "$m"; }
  done
  [ -n "$velt_pid" ] && wait "$velt_pid" 2>/dev/null
  [ -n "$fusefat_pid" ] && wait "$fusefat_pid" 2>/dev/null
  [ -n "$loop_dev" ] && losetup -d "$loop_dev"
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
elapsed() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.3f", b - a }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { if (a > 0) printf "%.2f", b / a; else print "-" }'; }

# A sparse card image with one FAT32 partition at sector 2048 (1 MiB).
make_card() {
  local img=$1 size=$2
  truncate -s "$size" "$img"
  echo 'start=2048, type=c' | sfdisk -q "$img"
  local bytes
  bytes=$(stat -c %s "$img")
  mkfs.fat -F 32 -s 64 --offset 2048 "$img" $(((bytes - 1048576) / 1024)) >/dev/null
}

wait_mounted() {
  local m=$1
  for _ in $(seq 1 3000); do
    if grep -q " $m " /proc/mounts && stat "$m" >/dev/null 2>&1; then return 0; fi
    sleep 0.01
  done
  echo "mount at $m did not come up" >&2
  return 1
}

# velt.fuse on $work/velt_root (card image $work/velt_root/dev/velt).
# Listed under its own name: an exclusive open of a card elsewhere on the machine (a format, a
# test) unmounts every mount listed as "velt.fuse".
mount_velt() {
  "$build/velt.fuse" -f -o fsname=velt-bench "$work/mnt_velt" >"$work/velt.log" 2>&1 &
  velt_pid=$!
  wait_mounted "$work/mnt_velt"
}
umount_velt() {
  fusermount3 -u "$work/mnt_velt"
  wait "$velt_pid" || true
  velt_pid=""
}
# fusefat in the foreground, so that its end (it writes back on exit) can be waited for.
mount_fusefat() {
  fusefat -f -o rw+ "$work/fusefat.img" "$work/mnt_fusefat" >"$work/fusefat.log" 2>&1 &
  fusefat_pid=$!
  wait_mounted "$work/mnt_fusefat"
}
umount_fusefat() {
  fusermount -u "$work/mnt_fusefat" 2>/dev/null || fusermount3 -u "$work/mnt_fusefat" 2>/dev/null ||
    umount "$work/mnt_fusefat"
  wait "$fusefat_pid" || true
  fusefat_pid=""
}

mkdir -p "$work/velt_root/dev" "$work/velt_root/tmp" "$work/mnt_velt" "$work/mnt_fusefat"
export VELT_ROOT=$work/velt_root
: >"$VELT_ROOT/dev/mmcblk0p1"
make_card "$VELT_ROOT/dev/velt" "$card_size"
# fusefat takes the file system itself: the same partition without the partition table.
part_bytes=$(($(stat -c %s "$VELT_ROOT/dev/velt") - 1048576))
truncate -s "$part_bytes" "$work/fusefat.img"
mkfs.fat -F 32 -s 64 "$work/fusefat.img" >/dev/null

payload=$(head -c 3072 /dev/urandom | base64 -w0)  # 4096 characters

declare -A t
# Runs "$@" and stores its wall time in t[$key], reporting it right away.
timed() {
  local key=$1 label=$2
  shift 2
  local s
  s=$(now)
  "$@"
  t[$key]=$(elapsed "$s" "$(now)")
  printf '%-10s %-40s %10s s\n' "${key%%.*}" "$label" "${t[$key]}"
}
write_big() { dd if=/dev/zero of="$1/big.bin" bs=1M count=1024 conv=fsync status=none; }
read_big() { dd if="$1/big.bin" of=/dev/null bs=1M status=none; }
make_small() {
  local i
  for i in $(seq 1 "$small_files"); do printf '%s' "$payload" >"$1/many/f$i.dat"; done
}

for fsname in velt fusefat; do
  m=$work/mnt_$fsname
  # The write counts until the data is on the image: unmounting is part of it.
  "mount_$fsname"
  timed "$fsname.write" "1 GiB write (incl. unmount)" eval "write_big $m && umount_$fsname"
  "mount_$fsname"
  timed "$fsname.read" "1 GiB read" read_big "$m"
  mkdir "$m/many"
  timed "$fsname.files" "$small_files files of 4 KiB (incl. unmount)" \
    eval "make_small $m && umount_$fsname"
done

printf '\n%-34s %12s %12s %18s\n' "" "velt.fuse" "fusefat" "fusefat/velt.fuse"
for k in write read files; do
  case $k in
    write) label="1 GiB write, 1 MiB blocks (s)" ;;
    read) label="1 GiB read, 1 MiB blocks (s)" ;;
    files) label="$small_files files of 4 KiB (s)" ;;
  esac
  printf '%-34s %12s %12s %18s\n' "$label" "${t[velt.$k]}" "${t[fusefat.$k]}" \
    "$(ratio "${t[velt.$k]}" "${t[fusefat.$k]}")"
done

# Start-up on a card full of files: the daemon reads every directory before it answers. The
# card is filled through velt.fuse itself (mtools takes minutes per thousand files, and a
# container may lack the kernel's FAT driver), in folders of 1,000 files.
echo
echo "Filling a card with $startup_files files for the start-up time ..."
rm -f "$VELT_ROOT/dev/velt" "$work/fusefat.img"
make_card "$VELT_ROOT/dev/velt" "$card_size"
per_dir=1000
dirs=$(((startup_files + per_dir - 1) / per_dir))
mount_velt
left=$startup_files
for d in $(seq 1 "$dirs"); do
  n=$((left < per_dir ? left : per_dir))
  mkdir "$work/mnt_velt/dir$d"
  (cd "$work/mnt_velt/dir$d" && seq -f "recording_%06g.dat" 1 "$n" | xargs touch)
  left=$((left - n))
done
umount_velt

timed startup "velt.fuse start to usable mount" mount_velt
rss_kb=$(awk '/VmRSS/ { print $2 }' "/proc/$velt_pid/status")
seen=$(find "$work/mnt_velt" -type f | wc -l)
umount_velt

loop_dev=$(losetup -f --show -o 1048576 "$VELT_ROOT/dev/velt")
timed fsck "fsck.fat -n" eval "fsck.fat -n $loop_dev >/dev/null || true"
losetup -d "$loop_dev"
loop_dev=""

printf '\n%-50s %10s s\n' "velt.fuse start to usable mount, $seen files" "${t[startup]}"
printf '%-50s %10s s\n' "fsck.fat -n on the same card" "${t[fsck]}"
printf '%-50s %10s KiB (%s bytes per file)\n' "velt.fuse resident memory after start-up" \
  "$rss_kb" "$(awk -v k="$rss_kb" -v n="$startup_files" 'BEGIN { printf "%d", k * 1024 / n }')"
