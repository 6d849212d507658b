#!/usr/bin/env bash
# Run by hand (it mounts); never part of the tests. What the commit interval costs a recording:
# a sequential write through the mount in 1 MiB blocks, with the default interval and with
# -o commit=0, each on a fresh card image, alternating, best of ROUNDS; and the bytes the card
# receives in each (the daemon's write counter, mount and unmount included).
# Settings (environment): MB (1024), CARD (2G), ROUNDS (3), VELT_BIN (default build/velt.fuse),
# BENCH_DIR (/tmp; /dev/shm takes the host disk out of the timing), COMMIT (an interval in
# seconds instead of the default, to see what each commit costs).
set -euo pipefail
cd "$(dirname "$0")/.."
MB=${MB:-1024}
CARD=${CARD:-2G}
ROUNDS=${ROUNDS:-3}
VELT_BIN=${VELT_BIN:-$(pwd)/build/velt.fuse}

velt_bin=$VELT_BIN
. bench/lib/mount.sh
bench_setup velt_commit
export VELT_WRITE_STATS=$work/write_stats

run_once() {  # mount options...; prints "seconds card-bytes"
  make_plain_card "$CARD"
  mount_velt "$@"
  local s e
  s=$(date +%s.%N)
  dd if=/dev/zero of="$mnt/recording.mp4" bs=1M count="$MB" conv=fsync status=none
  e=$(date +%s.%N)
  umount_velt
  awk -v t="$(awk "BEGIN { print $e - $s }")" '{ printf "%.3f %.0f\n", t, $2 * 512 }' "$work/write_stats"
}

best_default=999999
best_off=999999
for ((r = 1; r <= ROUNDS; r++)); do
  read -r d d_bytes < <(run_once ${COMMIT:+-o commit=$COMMIT})
  read -r o o_bytes < <(run_once -o commit=0)
  echo "round $r: default commit ${d}s ${d_bytes} card bytes, commit=0 ${o}s ${o_bytes} card bytes" >&2
  best_default=$(awk "BEGIN { print ($d < $best_default) ? $d : $best_default }")
  best_off=$(awk "BEGIN { print ($o < $best_off) ? $o : $best_off }")
done
printf 'write %d MiB, 1 MiB blocks, conv=fsync: default commit %.3f s, commit=0 %.3f s (%+.1f%%); card bytes %s and %s\n' \
  "$MB" "$best_default" "$best_off" "$(awk "BEGIN { print ($best_default / $best_off - 1) * 100 }")" \
  "$d_bytes" "$o_bytes"
