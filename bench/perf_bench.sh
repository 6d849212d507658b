#!/usr/bin/env bash
# Run by hand, as root (it mounts and uses loop devices); never part of the tests. Prints, in one
# run on this machine, with every card image sparse and in the page cache:
#   1. velt.fuse next to exfat-fuse (on a loop device) and fusefat: sequential write with fsync
#      and read back, in 1 MiB and in 4 KiB blocks; create, `ls -l` and unlink of small files;
#   2. for velt.fuse, the bytes its block backend wrote to the card per operation, on a small and
#      on a large card (creating 4 KiB files; a 4 KiB-block stream with and without -c), and the
#      time the same small files take on both;
#   3. velt.fuse's start-up time and resident memory on a card with many files, next to
#      `fsck.fat -n` on the same card.
# Settings (environment): SEQ_MB (1 MiB-block stream, 512), SEQ4K_MB (4 KiB-block stream, 64),
# FILES (small files, 1000), FUSEFAT_FILES (fusefat grows slow with a folder, 200),
# CARD (2G), BIG_CARD (128G), STARTUP_FILES (100000; 0 skips part 3),
# VELT_BIN (the daemon to measure, default build/velt.fuse, built first).
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
SEQ_MB=${SEQ_MB:-512}
SEQ4K_MB=${SEQ4K_MB:-64}
FILES=${FILES:-1000}
FUSEFAT_FILES=${FUSEFAT_FILES:-200}
CARD=${CARD:-2G}
BIG_CARD=${BIG_CARD:-128G}
STARTUP_FILES=${STARTUP_FILES:-100000}

need=()
for p in exfat-fuse exfatprogs fusefat dosfstools fdisk util-linux fuse3; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || need+=("$p")
done
if [ ${#need[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${need[@]}" >/dev/null
fi
if [ -z "${VELT_BIN:-}" ]; then
  [ -d build ] || cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build build -j2 --target velt.fuse >/dev/null
  VELT_BIN=$top/build/velt.fuse
fi

work=$(mktemp -d /tmp/velt_perf_XXXXXX)
pids=()
loops=()
cleanup() {
  set +e
  for m in "$work"/mnt_*; do
    grep -q " $m " /proc/mounts && { fusermount3 -u "$m" 2>/dev/null || umount -l "$m"; }
  done
  for p in "${pids[@]}"; do wait "$p" 2>/dev/null; done
  for l in "${loops[@]}"; do losetup -d "$l" 2>/dev/null; done
  rm -rf "$work"
}
trap cleanup EXIT

now() { date +%s.%N; }
calc() { awk "BEGIN { printf \"$1\", $2 }"; }
mkdir -p "$work/mnt_velt" "$work/mnt_exfat" "$work/mnt_fusefat"

wait_mounted() {
  local m=$1
  for _ in $(seq 1 6000); do
    if grep -q " $m " /proc/mounts && stat "$m" >/dev/null 2>&1; then return 0; fi
    sleep 0.01
  done
  echo "mount at $m did not come up" >&2
  return 1
}
wait_unmounted() {
  for _ in $(seq 1 6000); do
    grep -q " $1 " /proc/mounts || return 0
    sleep 0.01
  done
}

# A sparse card image with one FAT32 partition at sector 2048; mkfs.fat picks the cluster size
# a card of that size gets.
make_card() {
  local img=$1 size=$2
  rm -f "$img"
  truncate -s "$size" "$img"
  echo 'start=2048, type=c' | sfdisk -q "$img"
  local bytes
  bytes=$(stat -c %s "$img")
  mkfs.fat -F 32 --offset 2048 "$img" $(((bytes - 1048576) / 1024)) >/dev/null
}

# velt.fuse on the card under root $1 with extra options $2...; the backend counts its writes.
velt_pid=""
mount_velt() {
  local root=$1
  shift
  VELT_ROOT=$root VELT_WRITE_STATS=$root/write_stats \
    "$VELT_BIN" "$@" -f -o fsname=velt-bench "$work/mnt_velt" >"$root/velt.log" 2>&1 &
  velt_pid=$!
  pids+=("$velt_pid")
  wait_mounted "$work/mnt_velt"
}
umount_velt() {
  fusermount3 -u "$work/mnt_velt"
  wait "$velt_pid" || true
}
# Card bytes written since the daemon started (the counter survives its exit).
card_bytes() { awk '{ print $2 * 512 }' "$1/write_stats" 2>/dev/null || echo 0; }
new_velt_root() {
  local root=$work/$1
  rm -rf "$root"
  mkdir -p "$root/dev" "$root/tmp"
  : >"$root/dev/mmcblk0p1"
  make_card "$root/dev/velt" "$2"
  echo "$root"
}

exfat_loop=""
mount_exfat() {
  mount.exfat-fuse "$exfat_loop" "$work/mnt_exfat" >/dev/null 2>&1
  wait_mounted "$work/mnt_exfat"
}
umount_exfat() {
  fusermount3 -u "$work/mnt_exfat" 2>/dev/null || umount "$work/mnt_exfat"
  wait_unmounted "$work/mnt_exfat"
}
fusefat_pid=""
mount_fusefat() {
  fusefat -f -o rw+ "$work/fusefat.img" "$work/mnt_fusefat" >/dev/null 2>&1 &
  fusefat_pid=$!
  pids+=("$fusefat_pid")
  wait_mounted "$work/mnt_fusefat"
}
umount_fusefat() {
  fusermount3 -u "$work/mnt_fusefat" 2>/dev/null || umount "$work/mnt_fusefat"
  wait "$fusefat_pid" || true
}

payload=$(head -c 3072 /dev/urandom | base64 -w0)  # 4096 characters
make_files() {  # dir count
  local i
  for ((i = 1; i <= $2; i++)); do printf '%s' "$payload" >"$1/f$i.dat"; done
}

declare -A t
timed() {  # key command...: wall seconds into t[key]
  local key=$1 s
  shift
  s=$(now)
  "$@"
  t[$key]=$(calc "%.3f" "$(now) - $s")
}

# ---- 1. Against the peers ----
velt_root=$(new_velt_root velt_card "$CARD")
truncate -s "$CARD" "$work/exfat.img"
exfat_loop=$(losetup -f --show "$work/exfat.img")
loops+=("$exfat_loop")
mkfs.exfat "$exfat_loop" >/dev/null
truncate -s "$CARD" "$work/fusefat.img"
mkfs.fat -F 32 "$work/fusefat.img" >/dev/null

for fs in velt exfat fusefat; do
  m=$work/mnt_$fs
  if [ $fs = velt ]; then mnt() { mount_velt "$velt_root"; }; umnt() { umount_velt; }
  elif [ $fs = exfat ]; then mnt() { mount_exfat; }; umnt() { umount_exfat; }
  else mnt() { mount_fusefat; }; umnt() { umount_fusefat; }
  fi
  n=$FILES
  [ $fs = fusefat ] && n=$FUSEFAT_FILES
  echo "measuring $fs ..." >&2
  mnt
  timed "$fs.w1m" dd if=/dev/zero of="$m/seq1m" bs=1M count="$SEQ_MB" conv=fsync status=none
  umnt; mnt  # reads start with the mount's own caches empty
  timed "$fs.r1m" dd if="$m/seq1m" of=/dev/null bs=1M status=none
  rm -f "$m/seq1m"
  timed "$fs.w4k" dd if=/dev/zero of="$m/seq4k" bs=4k count=$((SEQ4K_MB * 256)) conv=fsync status=none
  umnt; mnt
  timed "$fs.r4k" dd if="$m/seq4k" of=/dev/null bs=4k status=none
  rm -f "$m/seq4k"
  mkdir "$m/many"
  timed "$fs.create" make_files "$m/many" "$n"
  sleep 1.2  # names and attributes the kernel was given have expired everywhere
  timed "$fs.ls" ls -l "$m/many" >/dev/null
  sleep 1.2
  timed "$fs.unlink" rm -f "$m"/many/*
  t[$fs.n]=$n
  umnt
done

printf '\n%-44s %12s %12s %12s\n' "operation (seconds)" "velt.fuse" "exfat-fuse" "fusefat"
row() {
  printf '%-44s %12s %12s %12s\n' "$1" "${t[velt.$2]}" "${t[exfat.$2]}" "${t[fusefat.$2]}"
}
row "write $SEQ_MB MiB, 1 MiB blocks, conv=fsync" w1m
row "read $SEQ_MB MiB, 1 MiB blocks" r1m
row "write $SEQ4K_MB MiB, 4 KiB blocks, conv=fsync" w4k
row "read $SEQ4K_MB MiB, 4 KiB blocks" r4k
printf '%-44s %12s %12s %12s\n' "small files (count)" "${t[velt.n]}" "${t[exfat.n]}" "${t[fusefat.n]}"
row "create 4 KiB files" create
row "ls -l of them" ls
row "unlink them" unlink

# ---- 2. Card bytes per operation, small card against large card ----
printf '\n%-52s %14s %14s\n' "velt.fuse card writes" "$CARD card" "$BIG_CARD card"
declare -A c
small=200
for size in "$CARD" "$BIG_CARD"; do
  root=$(new_velt_root "card_$size" "$size")
  mount_velt "$root"
  mkdir "$work/mnt_velt/small"
  sleep 0.3
  b0=$(card_bytes "$root")
  timed "files.$size" make_files "$work/mnt_velt/small" $small
  umount_velt
  c[files.$size]=$(calc "%d" "($(card_bytes "$root") - $b0) / $small")
  for cache in nocache cache; do
    if [ $cache = cache ]; then mount_velt "$root" -c 16M; else mount_velt "$root"; fi
    b0=$(card_bytes "$root")
    dd if=/dev/zero of="$work/mnt_velt/s4k" bs=4k count=$((SEQ4K_MB * 256)) conv=fsync status=none
    umount_velt
    c[$cache.$size]=$(calc "%.3f" "($(card_bytes "$root") - $b0) / ($SEQ4K_MB * 1048576)")
    mount_velt "$root"
    rm -f "$work/mnt_velt/s4k"
    umount_velt
  done
  rm -f "$root/dev/velt"
done
printf '%-52s %14s %14s\n' "bytes per 4 KiB file created ($small files, with close)" \
  "${c[files.$CARD]}" "${c[files.$BIG_CARD]}"
printf '%-52s %14s %14s\n' "seconds for those $small files" "${t[files.$CARD]}" "${t[files.$BIG_CARD]}"
printf '%-52s %14s %14s\n' "card bytes per byte, 4 KiB-block stream" "${c[nocache.$CARD]}" \
  "${c[nocache.$BIG_CARD]}"
printf '%-52s %14s %14s\n' "card bytes per byte, 4 KiB-block stream, -c 16M" \
  "${c[cache.$CARD]}" "${c[cache.$BIG_CARD]}"

# ---- 3. Start-up on a card with many files ----
[ "$STARTUP_FILES" -gt 0 ] || exit 0
echo "filling a card with $STARTUP_FILES files ..." >&2
root=$(new_velt_root startup "$CARD")
mount_velt "$root"
rss_empty=$(awk '/VmRSS/ { print $2 }' "/proc/$velt_pid/status")
left=$STARTUP_FILES
d=0
while [ "$left" -gt 0 ]; do
  d=$((d + 1))
  n=$((left < 1000 ? left : 1000))
  mkdir "$work/mnt_velt/dir$d"
  (cd "$work/mnt_velt/dir$d" && seq -f "recording_%06g.dat" 1 "$n" | xargs touch)
  left=$((left - n))
done
umount_velt
timed startup mount_velt "$root"
rss=$(awk '/VmRSS/ { print $2 }' "/proc/$velt_pid/status")
umount_velt
loop=$(losetup -f --show -o 1048576 "$root/dev/velt")
loops+=("$loop")
timed fsck eval "fsck.fat -n $loop >/dev/null 2>&1 || true"
printf '\n%-52s %14s\n' "$STARTUP_FILES files: velt.fuse start to usable mount (s)" "${t[startup]}"
printf '%-52s %14s\n' "fsck.fat -n on the same card (s)" "${t[fsck]}"
printf '%-52s %14s\n' "velt.fuse resident memory (KiB)" "$rss"
printf '%-52s %14s\n' "  per file, all of it (bytes)" "$(calc "%d" "$rss * 1024 / $STARTUP_FILES")"
printf '%-52s %14s\n' "  per file, above an empty card (bytes)" \
  "$(calc "%d" "($rss - $rss_empty) * 1024 / $STARTUP_FILES")"
