# Sourced by the benchmarks in bench/: a scratch directory holding a card image under VELT_ROOT,
# and the daemon mounted on $work/mnt. Each benchmark sets velt_bin (the daemon to run) first.
#
#   bench_setup NAME        scratch directory $BENCH_DIR/NAME_XXXXXX ($work; BENCH_DIR defaults
#                           to /tmp), VELT_ROOT, $card, $mnt;
#                           everything is unmounted and removed on exit (KEEP_WORK=1 keeps it)
#   make_plain_card SIZE [mkfs.fat options...]
#                           a fresh image of SIZE (truncate's syntax), one FAT32 partition at
#                           sector 2048 filling it
#   mount_velt [daemon options...]   mounts and waits until the mount answers
#   umount_velt

bench_setup() {
  work=$(mktemp -d "${BENCH_DIR:-/tmp}/$1_XXXXXX")
  mnt=$work/mnt
  velt_pid=""
  trap bench_cleanup EXIT
  export VELT_ROOT=$work/root
  mkdir -p "$VELT_ROOT/dev" "$VELT_ROOT/tmp" "$mnt"
  : >"$VELT_ROOT/dev/mmcblk0p1"
  card=$VELT_ROOT/dev/velt
}

bench_cleanup() {
  set +e
  grep -q " $mnt " /proc/mounts && fusermount3 -u "$mnt"
  [ -n "$velt_pid" ] && wait "$velt_pid" 2>/dev/null
  [ -n "${KEEP_WORK:-}" ] || rm -rf "$work"
}

make_plain_card() {
  local size=$1
  shift
  rm -f "$card"
  truncate -s "$size" "$card"
  echo 'start=2048, type=c' | sfdisk -q "$card"
  mkfs.fat -F 32 "$@" --offset 2048 "$card" $((($(stat -c %s "$card") - 1048576) / 1024)) >/dev/null
}

mount_velt() {
  # Its own name: a format or exclusive open elsewhere unmounts daemons listed as velt.fuse.
  "$velt_bin" -f -o fsname=velt-bench "$@" "$mnt" >>"$work/velt.log" 2>&1 &
  velt_pid=$!
  for _ in $(seq 1 3000); do
    grep -q " $mnt " /proc/mounts && stat "$mnt" >/dev/null 2>&1 && return 0
    sleep 0.01
  done
  echo "velt.fuse did not mount; see $work/velt.log" >&2
  exit 1
}

umount_velt() {
  fusermount3 -u "$mnt"
  wait "$velt_pid" || true
  velt_pid=""
}
