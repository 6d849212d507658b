#!/usr/bin/env bash
# Run by hand, as root; never part of the tests. In one run, three rounds, medians:
#   - 512 MiB written in 1 MiB blocks with conv=fsync through velt.fuse, against the same dd to a
#     plain file beside the card image, with the card bytes the daemon's backend wrote per byte;
#   - 256 MiB read back in 4 KiB blocks through a fresh mount, against 4 KiB reads of the card
#     image itself, and against the kernel's own FAT driver on a loop device where it can mount.
# VELT_BIN: the daemon to measure (default build/velt.fuse).
set -u
cd "$(dirname "$0")/.."
B=${VELT_BIN:-$(pwd)/build/velt.fuse}
W=$(mktemp -d /tmp/velt_io_XXXXXX)
mkdir -p $W/root/dev $W/mnt $W/vmnt
truncate -s 2G $W/root/dev/velt; echo 'start=2048, type=c' | sfdisk -q $W/root/dev/velt
mkfs.fat -F 32 --offset 2048 $W/root/dev/velt $(( (2147483648-1048576)/1024 )) >/dev/null; : > $W/root/dev/mmcblk0p1
now() { date +%s.%N; }
up() { VELT_ROOT=$W/root VELT_WRITE_STATS=$W/stats $B -f -o fsname=velt-perfio $W/mnt >$W/log 2>&1 & P=$!; for i in $(seq 500); do grep -q " $W/mnt " /proc/mounts && break; sleep 0.02; done; }
down() { fusermount3 -u $W/mnt; wait $P; }
bytes() { awk '{print $2*512}' $W/stats 2>/dev/null || echo 0; }
med() { sort -g | sed -n 2p; }
for r in 1 2 3; do
  up; b0=$(bytes); s=$(now); dd if=/dev/zero of=$W/mnt/w512 bs=1M count=512 conv=fsync status=none; e=$(now); down
  echo "velt $(echo "$e - $s" | bc) $(( $(bytes) - b0 ))" >> $W/w
  rm -f $W/raw.img; s=$(now); dd if=/dev/zero of=$W/raw.img bs=1M count=512 conv=fsync status=none; e=$(now)
  echo "raw $(echo "$e - $s" | bc)" >> $W/w
  up; s=$(now); dd if=$W/mnt/w512 of=/dev/null bs=4k count=65536 status=none; e=$(now); down
  echo "velt $(echo "$e - $s" | bc)" >> $W/r
  s=$(now); dd if=$W/root/dev/velt of=/dev/null bs=4k count=65536 skip=$((RANDOM % 1000 + 2000)) status=none; e=$(now)
  echo "raw $(echo "$e - $s" | bc)" >> $W/r
  if LO=$(losetup -f --show -o 1048576 $W/root/dev/velt 2>/dev/null) && mount -t vfat -o ro $LO $W/vmnt 2>/dev/null; then
    s=$(now); dd if=$W/vmnt/w512 of=/dev/null bs=4k count=65536 status=none; e=$(now); umount $W/vmnt
    echo "vfat $(echo "$e - $s" | bc)" >> $W/r
  fi
  [ -n "${LO:-}" ] && losetup -d $LO 2>/dev/null
  up; rm -f $W/mnt/w512; down
done
cat $W/w $W/r
vw=$(grep velt $W/w | awk '{print $2}' | med); rw=$(grep raw $W/w | awk '{print $2}' | med); cb=$(grep velt $W/w | awk '{print $3}' | med)
vr=$(grep velt $W/r | awk '{print $2}' | med); rr=$(grep raw $W/r | awk '{print $2}' | med); fr=$(grep vfat $W/r | awk '{print $2}' | med)
echo "512 MiB fsync write: velt $vw s, raw dd $rw s, ratio $(echo "scale=2; $vw / $rw" | bc); card bytes per byte $(echo "scale=3; $cb / 536870912" | bc)"
echo "256 MiB 4 KiB reads: velt $vr s, raw image $rr s, ratio $(echo "scale=2; $vr / $rr" | bc); vfat ${fr:-n/a}"
rm -rf $W
