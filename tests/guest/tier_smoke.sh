#!/bin/sh
# The storage test guest's own check: run in the guest by
#   tier_smoke.sh DISK_BYTES MODEL0 MODEL1 MODEL2 MODEL3
# with the disk size and model strings the runner was given.
set -u
fail() { echo "tier_smoke: $*" >&2; exit 1; }
if [ "${KEMO_GUEST:-}" != 1 ]; then
    echo "tier_smoke: not in the storage test guest: skipped"
    exit 77
fi
[ $# -eq 5 ] || fail "usage: tier_smoke.sh DISK_BYTES MODEL0 MODEL1 MODEL2 MODEL3"
bytes=$1
shift

# Exactly the four disks, in port order, with the models and size asked for;
# no other block device than loop and ram devices.
for disk in sda sdb sdc sdd; do
    model=$(sed 's/ *$//' "/sys/block/$disk/device/model") || fail "no /dev/$disk"
    [ "$model" = "$1" ] || fail "/dev/$disk is \"$model\", not \"$1\""
    size=$(($(cat "/sys/block/$disk/size") * 512))
    [ "$size" = "$bytes" ] || fail "/dev/$disk has $size bytes, not $bytes"
    shift
done
for device in /sys/block/*; do
    case ${device##*/} in
    sda | sdb | sdc | sdd | loop* | ram*) ;;
    *) fail "unexpected block device ${device##*/}" ;;
    esac
done

for personality in raid0 raid1 raid5 raid10; do
    grep -q "^Personalities :.*\[$personality\]" /proc/mdstat || fail "no $personality in /proc/mdstat"
done

# util-linux's sfdisk partitions, the real mdadm makes a RAID 1 that comes
# out clean, mke2fs makes ext3 on it and the kernel mounts it.
/usr/sbin/sfdisk --version | grep -q util-linux || fail "/usr/sbin/sfdisk is not util-linux's"
for disk in sda sdb; do
    printf 'label: dos\n,16M,fd\n' | /usr/sbin/sfdisk -q "/dev/$disk" || fail "sfdisk /dev/$disk failed"
done
[ -b /dev/sda1 ] && [ -b /dev/sdb1 ] || fail "no partition devices after sfdisk"
mdadm --create /dev/md0 --run --quiet --level=1 --raid-devices=2 --metadata=1.2 /dev/sda1 /dev/sdb1 ||
    fail "mdadm --create failed"
mdadm --wait /dev/md0 >/dev/null 2>&1
mdadm --detail /dev/md0 | grep -Eq '^ *State : clean *$' || { mdadm --detail /dev/md0; fail "md0 is not clean"; }
mke2fs -q -t ext3 /dev/md0 || fail "mke2fs failed"
mkdir -p /tmp/volume && mount -t ext3 /dev/md0 /tmp/volume || fail "cannot mount the new ext3 volume"
echo data >/tmp/volume/file && umount /tmp/volume || fail "cannot use the ext3 volume"
mdadm --stop --quiet /dev/md0 || fail "mdadm --stop failed"

# The appliance's factory tree, its permissions, and the build's settings
# program in /bin.
grep -q '^maxdisks="4"$' /etc.defaults/kemoinfo.conf || fail "no factory /etc.defaults/kemoinfo.conf"
[ "$(stat -c '%a %u' /etc/shadow)" = "600 0" ] || fail "factory permissions not applied to /etc/shadow"
value=$(/bin/get_key_value /etc.defaults/kemoinfo.conf maxdisks) || fail "/bin/get_key_value failed"
[ "$value" = 4 ] || fail "/bin/get_key_value printed \"$value\", not 4"
echo "tier_smoke: four disks, md, sfdisk, mdadm, mke2fs, factory tree and get_key_value work"
