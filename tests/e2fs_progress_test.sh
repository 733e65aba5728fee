#!/bin/sh
# The appliance's mke2fs/mkfs.ext3/resize2fs wrapper on image files: it
# makes and grows real file systems through e2fsprogs, keeps its progress
# files in /tmp without ever writing through a planted name, refuses bad
# progress prefixes and option-like devices before anything runs, and
# answers "can it grow?" without letting the real resize2fs see -M.
#
#   e2fs_progress_test.sh WRAPPER
#
# Runs in the appliance sandbox (a private /tmp), as root.
set -u
wrapper=$1
failures=0
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
for tool in dumpe2fs e2fsck; do
    command -v "$tool" > /dev/null || { echo "SKIP: no $tool"; exit 77; }
done
work=$(mktemp -d /var/tmp/e2fs-progress-test.XXXXXX) || exit 1
trap 'rm -rf "$work"' EXIT
for role in mke2fs mkfs.ext3 resize2fs; do
    ln -s "$wrapper" "$work/$role"
done
ln -s "$wrapper" "$work/mkfs.ext4"
cd "$work" || exit 1

blocks() { dumpe2fs -h "$1" 2> /dev/null | sed -n 's/^Block count: *//p'; }
fs_ok() { e2fsck -fn "$1" > /dev/null 2>&1; }
# runs WHAT... and checks its exit status is WANT (the first argument)
status_is() {
    want=$1
    shift
    "$@" > out 2> err
    got=$?
    [ "$got" -eq "$want" ] || fail "$*: exit $got, not $want ($(cat err))"
}

# ---- Making a file system --------------------------------------------------
truncate -s 96M vol.img
status_is 0 ./mkfs.ext3 -P /tmp/mkfs.progress -F vol.img
fs_ok vol.img || fail "mkfs.ext3 made no sound file system"
dumpe2fs -h vol.img 2> /dev/null | grep -q has_journal || fail "mkfs.ext3 made no journal"
line=$(cat /tmp/mkfs.progress.vol.img 2> /dev/null)
case $line in
[1-9]*/*) [ "${line%/*}" = "${line#*/}" ] || fail "mkfs progress ended at $line, not N/N" ;;
*) fail "mkfs progress file holds \"$line\"" ;;
esac
[ "$(stat -c %a /tmp/mkfs.progress.vol.img)" = 644 ] || fail "progress file mode is not 0644"
[ -z "$(find /tmp -maxdepth 1 -name '.mkfs.progress*')" ] || fail "temporary progress files left in /tmp"

# -P as one word and among other options; the tool's own output passes
# through.
truncate -s 32M small.img
status_is 0 ./mke2fs -F -q -P/tmp/mk small.img
grep -qx '\([1-9][0-9]*\)/\1' /tmp/mk.small.img || fail "mke2fs -q: progress $(cat /tmp/mk.small.img)"
status_is 0 ./mke2fs -P /tmp/mk -F small.img
grep -q 'Writing inode tables' out || fail "the tool's output was not passed through"

# A symbolic link planted at the progress name is replaced, not followed.
echo precious > victim
truncate -s 32M planted.img
ln -s "$work/victim" /tmp/mkfs.progress.planted.img
status_is 0 ./mkfs.ext3 -P /tmp/mkfs.progress -F planted.img
[ "$(cat victim)" = precious ] || fail "the progress file was written through a planted link"
[ -f /tmp/mkfs.progress.planted.img ] && [ ! -L /tmp/mkfs.progress.planted.img ] ||
    fail "the planted link was not replaced"

# A failing tool never reports the end.
./mkfs.ext3 -P /tmp/mkfs.progress -F "$work/missing.img" > /dev/null 2>&1 &&
    fail "mkfs.ext3 on a missing device succeeded"
[ ! -e /tmp/mkfs.progress.missing.img ] || fail "a failed mkfs left a progress file: $(cat /tmp/mkfs.progress.missing.img)"

# Refused before the tool runs: the image keeps its bytes.
head -c 65536 /dev/urandom > keep.img
truncate -s 16M keep.img
cp keep.img keep.orig
for prefix in /tmp/../etc/p /tmp/.hidden /tmp/-x /tmp/a/b /etc/p /tmp/ "/tmp/a b" /tmpx/p; do
    status_is 2 ./mkfs.ext3 -F -P "$prefix" keep.img
done
status_is 2 ./mkfs.ext3 -P /tmp/p -F            # no device
status_is 2 ./mkfs.ext3 -P /tmp/p -P /tmp/q -F keep.img
status_is 2 ./mkfs.ext3 -P /tmp/p keep.img -F   # an option after the device
status_is 2 ./mkfs.ext3 -P /tmp/p -F -- -keep.img
status_is 2 ./mkfs.ext4 -F keep.img             # not one of its names
cmp -s keep.img keep.orig || fail "a refused mkfs changed the image"
ls /tmp | grep -q '^p\.' && fail "a refused mkfs wrote a progress file"

# ---- Can it grow? ----------------------------------------------------------
status_is 1 ./resize2fs -M vol.img
status_is 2 ./resize2fs -M keep.img              # no ext2 file system
status_is 2 ./resize2fs -M "$work/none.img"
before=$(blocks vol.img)
truncate -s 97M vol.img                          # 1 MiB more than the file system
status_is 0 ./resize2fs -M vol.img
truncate -s 96M vol.img
truncate -s +1023K vol.img
status_is 1 ./resize2fs -M vol.img
truncate -s 160M vol.img
status_is 0 ./resize2fs -M vol.img
# -M reaches the real tool in no form (it would shrink the file system).
for args in "-f -M" "-Mf" "-M -p" "-P -M" "-M vol.img 200M"; do
    # shellcheck disable=SC2086
    status_is 2 ./resize2fs $args vol.img
done
[ "$(blocks vol.img)" = "$before" ] || fail "a -M check changed the file system"

# ---- Growing, with progress ------------------------------------------------
ln -s "$work/victim" /tmp/resize2fs.progress.scan.vol.img
status_is 0 ./resize2fs -fpF vol.img
after=$(blocks vol.img)
[ "$after" -gt "$before" ] || fail "resize2fs -fpF did not grow the file system ($before, then $after)"
fs_ok vol.img || fail "the grown file system does not check clean"
for pass in extend scan; do
    [ "$(cat /tmp/resize2fs.progress.$pass.vol.img 2> /dev/null)" = 100 ] ||
        fail "$pass progress ends at \"$(cat /tmp/resize2fs.progress.$pass.vol.img 2> /dev/null)\", not 100"
done
[ "$(cat victim)" = precious ] || fail "resize progress written through a planted link"
status_is 1 ./resize2fs -M vol.img

# Options given apart; a grow with nothing to do still ends at 100.
echo 37 > /tmp/resize2fs.progress.extend.vol.img
status_is 0 ./resize2fs -f -p -F vol.img
[ "$(cat /tmp/resize2fs.progress.extend.vol.img)" = 100 ] || fail "a grow to the same size did not end at 100"

# Other uses pass through: an explicit smaller size shrinks (through the
# real tool's later passes), and a failing tool leaves its status.
status_is 0 ./resize2fs -f vol.img 120M
[ "$(blocks vol.img)" -lt "$after" ] || fail "resize2fs vol.img 120M did not shrink"
fs_ok vol.img || fail "the shrunk file system does not check clean"
status_is 2 ./resize2fs -fpF -- -vol.img
./resize2fs -fpF "$work/none.img" > /dev/null 2>&1 && fail "resize2fs of a missing image succeeded"
[ "$(cat /tmp/resize2fs.progress.extend.none.img 2> /dev/null)" != 100 ] ||
    fail "a failed resize reported 100"

[ "$failures" -eq 0 ] || exit 1
echo "ok"
