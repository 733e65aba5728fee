#!/bin/sh
# The storage chapter of the tour: the internal disks of a virtual appliance
# (four blank SATA disks), run inside the guest by "./build.sh demo-storage" or by
# hand through tests/guest/kemo-guest.  Every step prints its command.
set -e
step() {
    printf '\n$ %s\n' "$*"
    "$@"
}

echo "== Four blank disks in their slots"
step kemoctl disk list

echo
echo "== Initialising the disks of slots 1 and 2: system, swap and data partitions"
step kemoctl disk init 1 all
step kemoctl disk init 2 all
step kemoctl disk check-layout 1
echo
echo "(util-linux reads the same table:)"
step /usr/sbin/sfdisk --dump /dev/sda
step cat /sys/block/sda/sda3/start /sys/block/sda/sda3/size

echo
echo "== Arrays made with mdadm over the new partitions, and what the disks say then"
step mdadm --create /dev/md0 --run --assume-clean --metadata=1.2 -l1 -n2 /dev/sda1 /dev/sdb1
step mdadm --create /dev/md1 --run --assume-clean --metadata=1.2 -l1 -n2 /dev/sda2 /dev/sdb2
step mdadm --create /dev/md2 --run --assume-clean --metadata=1.2 -l1 -n2 /dev/sda3 /dev/sdb3
step kemoctl disk list
step kemoctl disk status 1

echo
echo "== A failed member"
step mdadm /dev/md2 --fail /dev/sdb3
step kemoctl disk status 2
step cat /proc/mdstat

echo
echo "== Cleaning slot 2's data partition after taking it out of the array"
step mdadm /dev/md2 --remove /dev/sdb3
step kemoctl disk clean 2 data
step kemoctl disk check-layout 2 || true
step kemoctl disk list

echo
echo "== From here on the library does the work: the arrays of the disk chapter go"
step kemoctl raid destroy 2
step kemoctl raid status

echo
echo "== Slot 2's data partition back, and slots 3 and 4 initialised"
step kemoctl disk init 2 data
step kemoctl disk init 3 all
step kemoctl disk init 4 all
step kemoctl disk list

echo
echo "== A RAID 5 array over slots 1-3"
echo "(a new RAID 5 builds its parity in the background: about a minute per"
echo "0.74 GiB member in this virtual machine.  The build is parked while the"
echo "volume is made, and let run when a rebuild is to be watched.)"
step sh -c 'echo 1 > /proc/sys/dev/raid/speed_limit_min; echo 1 > /proc/sys/dev/raid/speed_limit_max'
step kemoctl raid create 5 1,2,3
step kemoctl raid status 2
step cat /proc/mdstat

echo
echo "== The volume on it: ext3, mounted at /volume1"
step kemoctl volume init 1 ext3
step cat /tmp/mkfs.progress.md2
step kemoctl volume list
step kemoctl volume health 1
step kemoctl raid progress

echo
echo "== A user whose space on volume 1 is limited to 2 MB"
step kemoctl user add alice --password Alice-pw1
step kemoctl quota on 1
step kemoctl quota set alice 1 2
step mkdir /volume1/alice
step chown alice /volume1/alice
echo "(alice writes 1 MB, then 4 MB: the second write stops at her limit)"
step /usr/bin/setpriv --reuid=alice --regid=100 --clear-groups dd if=/dev/zero of=/volume1/alice/one bs=1M count=1
if step /usr/bin/setpriv --reuid=alice --regid=100 --clear-groups dd if=/dev/zero of=/volume1/alice/four bs=1M count=4; then
    echo "tour: alice's write was not stopped by her quota" >&2
    exit 1
fi
step kemoctl quota get alice 1
step kemoctl quota clear alice
step kemoctl quota get alice 1

echo
echo "== A failed member: slot 3 is marked faulty and taken out"
step kemoctl raid remove 2 3
step kemoctl raid status 2
step kemoctl disk status 3
step kemoctl raid progress

echo
echo "== Slot 3 cleaned, initialised again and added back: the array rebuilds"
step kemoctl disk clean 3 data
step kemoctl disk init 3 data
step kemoctl raid add 2 3
step sh -c 'echo 1000 > /proc/sys/dev/raid/speed_limit_min; echo 200000 > /proc/sys/dev/raid/speed_limit_max'
step cat /proc/mdstat
step mdadm --wait /dev/md2 || true
step kemoctl raid status 2
step kemoctl raid progress

echo
echo "== Slot 4 joins: the array is reshaped to four members, then the file system grows"
step kemoctl raid add 2 4
step kemoctl raid expand 2 4
step cat /proc/mdstat
step mdadm --wait /dev/md2 || true
step kemoctl raid status 2
step kemoctl raid grow 2
step kemoctl volume info 1
step kemoctl volume expand 1
step cat /tmp/resize2fs.progress.extend.md2 /tmp/resize2fs.progress.scan.md2
step kemoctl volume list
step ls -l /volume1/alice
