#!/usr/bin/env bash
# Run by hand (as root: it mounts). In one run, on the same card, the same data written
# sequentially
#   - through the mount (dd, 1 MiB blocks, fsync before the close) and
#   - through the direct channel (veltctl write, 64 KiB and 4 KiB records, merged by the daemon),
# into the root of a plain FAT32 card and into a reserved folder of a VELT card, and read back
# both ways (to /dev/null: the data is compared after the timing). Every round times each path
# once, one after the other, so a ratio compares runs made under the same load; the table shows
# the median of ROUNDS rounds (default 3) for the rates and for the ratios of the channel's time
# to the mount's (below 1: the channel is faster) against the goal of each case, and the bytes
# the card received for each write path per byte of data.
# Usage: bench/channel_bench.sh [MiB, default 512]   (BUILD_DIR picks the build directory;
# BIN_DIR runs the velt.fuse, veltctl and mkfs.velt found there instead, unbuilt, for comparing
# two versions back to back; BENCH_DIR=/dev/shm keeps the card image in memory, which makes the
# rates steadier)
set -euo pipefail
cd "$(dirname "$0")/.."
top=$(pwd)
mib=${1:-512}
build=${BUILD_DIR:-$top/build}
rounds=${ROUNDS:-3}

if [ -n "${BIN_DIR:-}" ]; then
  build=$BIN_DIR
else
  cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" -j2 --target velt.fuse veltctl mkfs.velt >/dev/null
fi

velt_bin=$build/velt.fuse
. bench/lib/mount.sh
bench_setup velt_channel_bench
export VELT_WRITE_STATS=$work/card_writes
card_mib=$((mib * 5 + 1024))

src=$work/source.bin
head -c "$((mib * 1024 * 1024))" /dev/urandom >"$src"
ctl="$build/veltctl -t 60000"

sectors() { awk '{ print $2 }' "$VELT_WRITE_STATS" 2>/dev/null || echo 0; }
# CPU seconds the daemon has used so far (all its threads).
daemon_cpu() { awk -v hz="$(getconf CLK_TCK)" '{ printf "%.2f", ($14 + $15) / hz }' "/proc/$velt_pid/stat"; }
median() { tr ' ' '\n' | grep . | sort -g | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }'; }

# Per key, one value per round: rate (MiB/s), CPU seconds per GiB (the daemon's and the
# client's: on a loaded machine the rate depends on the share each gets, the CPU cost does not)
# and, for writes, card bytes per data byte.
declare -A rate cpu bytes
# run KEY COMMAND...: times one path; the card's count is read once the command has returned
# (each ends with the file closed, its data on the card).
run() {
  local key=$1 before cpu0 t
  shift
  before=$(sectors)
  cpu0=$(daemon_cpu)
  t=$( { TIMEFORMAT='%R %U %S'; time "$@" >/dev/null 2>&1; } 2>&1)
  rate[$key]+="$(awk -v m="$mib" -v t="${t%% *}" 'BEGIN { printf "%.1f", m / t }') "
  cpu[$key]+="$(awk -v m="$mib" -v t="$t" -v a="$cpu0" -v b="$(daemon_cpu)" \
    'BEGIN { split(t, f, " "); printf "%.2f", (f[2] + f[3] + b - a) * 1024 / m }') "
  bytes[$key]+="$(awk -v a="$before" -v b="$(sectors)" -v m="$mib" \
    'BEGIN { printf "%.3f", (b - a) * 512 / (m * 1048576) }') "
}

for kind in plain velt; do
  dir=$mnt
  if [ "$kind" = plain ]; then
    make_plain_card "${card_mib}M" -s 8
  else
    # A reserved folder REC whose files hold the whole test file.
    rm -f "$card"
    truncate -s "${card_mib}M" "$card"
    echo 'start=2048, type=c' | sfdisk -q "$card"
    "$build/mkfs.velt" /dev/mmcblk0p1 "REC:60:$((mib + 16))" >/dev/null
    dir=$mnt/REC
  fi
  # Every block of the image exists before the timing: the first path to reach a region must
  # not pay for the file system under the image allocating it.
  fallocate -l "$(stat -c %s "$card")" "$card" 2>/dev/null || true
  mount_velt
  for round in $(seq 1 "$rounds"); do
    rm -f "$dir"/*.bin
    # fsync: the channel's write ends when its close is done, which puts data, chain and record
    # on the card; the mount's close is answered before its release does the same.
    run "$kind.fuse.write" dd if="$src" of="$dir/fuse.bin" bs=1M conv=fsync status=none
    run "$kind.channel64.write" sh -c "$ctl write -b 65536 '$dir/channel64.bin' <'$src'"
    run "$kind.channel4.write" sh -c "$ctl write -b 4096 '$dir/channel4.bin' <'$src'"
    # Each read opens its file anew, which drops the kernel's cached pages of it.
    run "$kind.fuse.read" dd if="$dir/fuse.bin" of=/dev/null bs=1M count="$mib" status=none
    run "$kind.channel.read" sh -c "$ctl read -b 1048576 '$dir/channel64.bin'"
  done
  # Everything written either way holds the data.
  cmp -n "$((mib * 1024 * 1024))" "$dir/fuse.bin" "$src"
  $ctl read -b 1048576 "$dir/channel4.bin" | cmp - "$src"
  $ctl read -b 1048576 "$dir/channel64.bin" | cmp - "$src"
  umount_velt
done

printf '\n%s MiB, median of %s rounds   %8s %8s %6s %5s %4s %8s %8s %7s %7s\n' "$mib" "$rounds" \
  "mount" "channel" "time" "goal" "" "mount" "channel" "card" "card"
printf '%-36s %8s %8s %6s %5s %4s %8s %8s %7s %7s\n' "" "MiB/s" "MiB/s" "c/m" "c/m" "" \
  "CPU s/G" "CPU s/G" "mount" "channel"
missed=0
for kind in plain velt; do
  case $kind in
    plain) where="FAT32 root" ;;
    velt) where="reserved folder" ;;
  esac
  for row in "write 64 KiB records:channel64.write:fuse.write:1.00" \
    "write 4 KiB records:channel4.write:fuse.write:1.20" "read 1 MiB:channel.read:fuse.read:1.00"; do
    IFS=: read -r what chan fuse goal <<<"$row"
    # The channel's time over the mount's for the same data, round by round.
    ratios=$(paste -d' ' <(tr ' ' '\n' <<<"${rate[$kind.$chan]}" | grep .) \
      <(tr ' ' '\n' <<<"${rate[$kind.$fuse]}" | grep .) | awk '{ printf "%.2f ", $2 / $1 }')
    ratio=$(median <<<"$ratios")
    verdict=ok
    if awk -v r="$ratio" -v g="$goal" 'BEGIN { exit !(r > g) }'; then
      verdict=MISS
      missed=$((missed + 1))
    fi
    card_m=-
    card_c=-
    if [ "${what#write}" != "$what" ]; then
      card_m=$(median <<<"${bytes[$kind.$fuse]}")
      card_c=$(median <<<"${bytes[$kind.$chan]}")
    fi
    printf '%-36s %8s %8s %6s %5s %4s %8s %8s %7s %7s\n' "$what, $where" \
      "$(median <<<"${rate[$kind.$fuse]}")" "$(median <<<"${rate[$kind.$chan]}")" \
      "$ratio" "$goal" "$verdict" "$(median <<<"${cpu[$kind.$fuse]}")" \
      "$(median <<<"${cpu[$kind.$chan]}")" "$card_m" "$card_c"
  done
done
echo "(time c/m: median of the rounds' ratios of the channel's time to the mount's, at most the goal;"
echo " CPU: daemon and client, seconds per GiB; card: bytes the card received per byte of data)"
echo "$missed of 6 goals missed"
if [ -n "${VERBOSE:-}" ]; then
  for k in "${!rate[@]}"; do echo "$k: MiB/s ${rate[$k]}| CPU s/GiB ${cpu[$k]}"; done | sort
fi
