#!/usr/bin/env bash
# Run by hand, as root; never part of the tests. In one run, ROUNDS rounds (default 5), medians:
#   - 512 MiB written in 1 MiB blocks with conv=fsync through velt.fuse, against the same dd to a
#     plain file beside the card image, with the card bytes the daemon's backend wrote per byte;
#     and the card bytes per byte of 64 MiB written in 4 KiB blocks;
#   - 256 MiB read back in 4 KiB blocks, and the whole 512 MiB read three times over in 1 MiB
#     blocks (1.5 GiB: one pass lasts only ~70 ms), through a fresh mount, against the same reads
#     through bench/window_fuse.c (the FUSE transport alone with the daemon's mount settings,
#     serving the file's bytes as a window of the image), of the card image itself, and (4 KiB)
#     through the kernel's own FAT driver on a loop device where it can mount. Both mounts use
#     direct_io: every pass reaches the server, none is served from the kernel's cache of the
#     mounted file.
# VELT_BIN: the daemon to measure (default build/velt.fuse).
set -u
cd "$(dirname "$0")/.."
B=${VELT_BIN:-$(pwd)/build/velt.fuse}
W=$(mktemp -d /tmp/velt_io_XXXXXX)
mkdir -p $W/root/dev $W/mnt $W/vmnt $W/wmnt
truncate -s 2G $W/root/dev/velt; echo 'start=2048, type=c' | sfdisk -q $W/root/dev/velt
mkfs.fat -F 32 --offset 2048 $W/root/dev/velt $(( (2147483648-1048576)/1024 )) >/dev/null; : > $W/root/dev/mmcblk0p1
gcc -O2 -Wall -Wextra -o $W/window_fuse bench/window_fuse.c $(pkg-config --cflags --libs fuse3) || exit 1
now() { date +%s.%N; }
# The first file's data: cluster 3 of the partition at 1 MiB (boot sector fields, little-endian).
le() { od -An -tu$2 -j$((1048576 + $1)) -N$2 $W/root/dev/velt | tr -d ' '; }
data_at() { echo $(( 1048576 + ($(le 14 2) + $(le 16 1) * $(le 36 4)) * 512 + $(le 13 1) * 512 )); }
wup() { $W/window_fuse $W/root/dev/velt $(data_at) 536870912 -f -o max_idle_threads=10 -o max_read=524288 $W/wmnt >$W/wlog 2>&1 & WP=$!; for i in $(seq 500); do grep -q " $W/wmnt " /proc/mounts && break; sleep 0.02; done; }
wdown() { fusermount3 -u $W/wmnt; wait $WP; }
# Seconds of dd reads: SOURCE BS COUNT [SKIP [PASSES]]
rd() {
  local s e i; s=$(now)
  for i in $(seq ${5:-1}); do dd if=$1 of=/dev/null bs=$2 count=$3 skip=${4:-0} status=none; done
  e=$(now); echo "$e - $s" | bc
}
# The daemon rewrites the stats file from its first card write on: none before it counts.
up() { rm -f $W/stats; VELT_ROOT=$W/root VELT_WRITE_STATS=$W/stats $B -f -o fsname=velt-perfio $W/mnt >$W/log 2>&1 & P=$!; for i in $(seq 500); do grep -q " $W/mnt " /proc/mounts && break; sleep 0.02; done; }
down() { fusermount3 -u $W/mnt; wait $P; }
bytes() { awk '{print $2*512}' $W/stats 2>/dev/null || echo 0; }
ROUNDS=${ROUNDS:-5}
med() { sort -g | sed -n $(( (ROUNDS + 1) / 2 ))p; }
echo "load average at the start: $(cut -d' ' -f1-3 /proc/loadavg)"
for r in $(seq $ROUNDS); do
  up; b0=$(bytes); s=$(now); dd if=/dev/zero of=$W/mnt/w512 bs=1M count=512 conv=fsync status=none; e=$(now); down
  echo "velt $(echo "$e - $s" | bc) $(( $(bytes) - b0 ))" >> $W/w
  rm -f $W/raw.img; s=$(now); dd if=/dev/zero of=$W/raw.img bs=1M count=512 conv=fsync status=none; e=$(now)
  echo "raw $(echo "$e - $s" | bc)" >> $W/w
  up; b0=$(bytes); dd if=/dev/zero of=$W/mnt/w4k bs=4k count=16384 conv=fsync status=none; rm -f $W/mnt/w4k; down
  echo "$(( $(bytes) - b0 ))" >> $W/w4k
  up; echo "velt $(rd $W/mnt/w512 4k 65536)" >> $W/r; down
  up; echo "velt $(rd $W/mnt/w512 1M 512 0 3)" >> $W/r1; down
  wup; echo "fuse $(rd $W/wmnt/data 4k 65536)" >> $W/r; wdown
  wup; echo "fuse $(rd $W/wmnt/data 1M 512 0 3)" >> $W/r1; wdown
  echo "raw $(rd $W/root/dev/velt 4k 65536 $((RANDOM % 1000 + 2000)))" >> $W/r
  echo "raw $(rd $W/root/dev/velt 1M 512 $((RANDOM % 4 + 8)) 3)" >> $W/r1
  if LO=$(losetup -f --show -o 1048576 $W/root/dev/velt 2>/dev/null) && mount -t vfat -o ro $LO $W/vmnt 2>/dev/null; then
    s=$(now); dd if=$W/vmnt/w512 of=/dev/null bs=4k count=65536 status=none; e=$(now); umount $W/vmnt
    echo "vfat $(echo "$e - $s" | bc)" >> $W/r
  fi
  [ -n "${LO:-}" ] && losetup -d $LO 2>/dev/null
  up; rm -f $W/mnt/w512; down
done
cat $W/w $W/r $W/r1
vw=$(grep velt $W/w | awk '{print $2}' | med); rw=$(grep raw $W/w | awk '{print $2}' | med); cb=$(grep velt $W/w | awk '{print $3}' | med)
echo "512 MiB fsync write: velt $vw s, raw dd $rw s, ratio $(echo "scale=2; $vw / $rw" | bc); card bytes per byte $(echo "scale=3; $cb / 536870912" | bc)"
echo "64 MiB in 4 KiB writes: card bytes per byte $(echo "scale=3; $(med < $W/w4k) / 67108864" | bc)"
for f in r r1; do
  vr=$(grep velt $W/$f | awk '{print $2}' | med); ur=$(grep fuse $W/$f | awk '{print $2}' | med)
  rr=$(grep raw $W/$f | awk '{print $2}' | med); fr=$(grep vfat $W/$f | awk '{print $2}' | med)
  echo "$([ $f = r ] && echo '256 MiB in 4 KiB' || echo '3 x 512 MiB in 1 MiB') reads: velt $vr s, FUSE window $ur s (ratio $(echo "scale=2; $vr / $ur" | bc)), raw image $rr s (ratio $(echo "scale=2; $vr / $rr" | bc)); vfat ${fr:-n/a}"
done
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
rm -rf $W
