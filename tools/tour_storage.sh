#!/bin/sh
# The storage chapter of the tour: the internal disks of a virtual appliance
# (four blank SATA disks), run inside the guest by "./build.sh demo" or by
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
