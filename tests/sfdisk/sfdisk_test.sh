#!/bin/bash
# Tests of the partitioning tool on sparse image files (and, as root, on a
# loop device).  usage: sfdisk_test.sh TOOL GROUP
# The peer is the util-linux sfdisk (/usr/sbin/sfdisk), fed the same layout
# as a script.  Exit status: 0 passed, 1 failed, 77 skipped.
set -u
tool=$1
group=$2
peer=/usr/sbin/sfdisk
work=$(mktemp -d)
loop=
cleanup() {
    [ -n "$loop" ] && losetup -d "$loop" 2>/dev/null
    rm -rf "$work"
}
trap cleanup EXIT
cd "$work" || exit 1
failures=0

bad() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}
expect() { # expect WHAT GOT WANT
    [ "$2" = "$3" ] || bad "$1: got [$2], want [$3]"
}
need_peer() {
    [ -x "$peer" ] || { echo "SKIP: no util-linux sfdisk at $peer" >&2; exit 77; }
}
image() { # image FILE SIZE: a fresh sparse image
    rm -f "$1" && truncate -s "$2" "$1"
}
# The three commands the storage library runs to lay a disk out.
lay() {
    "$tool" -N1 -uS -q -f -j63 -z1574307 -tfd -F "$1" >/dev/null 2>&1 &&
        "$tool" -N2 -uS -q -f -j0 -z787185 -tfd -F "$1" >/dev/null 2>&1 &&
        "$tool" -N3 -uS -q -f -j273105 -z-1 -tfd -F "$1" >/dev/null 2>&1
}
# The same layout as a script for the peer.
peer_lay() {
    printf 'label: dos\nunit: sectors\nstart=63, size=1574307, type=fd\nstart=1574370, size=787185, type=fd\nstart=2634660, type=fd\n' |
        "$peer" -q "$1" >/dev/null 2>&1
}
# The partition entries as the peer reads them, without the image's name.
entries() {
    "$peer" --dump "$1" 2>/dev/null | sed -n "s/^$1\\([0-9]\\)/\\1/p"
}
# Size, allocation, times and the first and last MiB: any write changes it.
fingerprint() {
    stat -c '%s %b %y %z' "$1"
    head -c 1048576 "$1" | sha256sum
    tail -c 1048576 "$1" | sha256sum
}
sectors() { echo $(($(stat -c %s "$1") / 512)); }

# ---------------------------------------------------------------- groups

lays_the_appliance_layout_like_util_linux() {
    need_peer
    for size in 4G 2T; do
        image ours.img $size
        image theirs.img $size
        lay ours.img || bad "$size: laying the layout failed"
        peer_lay theirs.img || bad "$size: the peer refused the layout"
        expect "$size: entries beside the peer's" "$(entries ours.img)" "$(entries theirs.img)"
        local last=$(($(sectors ours.img) - 1))
        [ $last -gt 4294967295 ] && last=4294967295
        expect "$size: entries" "$(entries ours.img)" "1 : start=          63, size=     1574307, type=fd
2 : start=     1574370, size=      787185, type=fd
3 : start=     2634660, size=  $(printf %10d $((last - 2634660 + 1))), type=fd"
        expect "$size: label" "$("$peer" --dump ours.img 2>/dev/null | sed -n 's/^label: //p')" dos
    done

    # Only the table's bytes change: on random data the first sector, on an
    # existing table the entry's 16 bytes only (the boot code stays).
    head -c 16M /dev/urandom >noise.img
    cp noise.img before.img
    "$tool" -N1 -uS -q -f -j63 -z1000 -tfd -F noise.img || bad "small partition 1 on random data"
    cmp -s -i 512 noise.img before.img || bad "sectors after the table changed"
    cp noise.img before.img
    "$tool" -N2 -uS -q -f -j10 -z2000 -t83 noise.img || bad "small partition 2 on random data"
    expect "bytes changed by adding entry 2" "$(cmp -l noise.img before.img | awk '$1 < 463 || $1 > 478' | wc -l)" 0
    expect "small layout" "$(entries noise.img)" "1 : start=          63, size=        1000, type=fd
2 : start=        1073, size=        2000, type=83"
}

lists_partitions() {
    image disk.img 1500M
    lay disk.img || bad "laying the layout failed"
    expect "one entry" "$("$tool" -l -uS -N3 disk.img)" "disk.img3 2634660 437340 fd"
    expect "every entry" "$("$tool" -l disk.img)" "disk.img1 63 1574307 fd
disk.img2 1574370 787185 fd
disk.img3 2634660 437340 fd"
    expect "through a path" "$("$tool" -l -uS -N1 "$work/disk.img")" "$work/disk.img1 63 1574307 fd"

    # Types in lower-case hex, whatever case they were given in.
    "$tool" -N3 -uS -q -f -j0 -z100 -t82 disk.img && "$tool" -N4 -uS -q -j0 -z100 -tFD disk.img ||
        bad "types 82 and FD"
    expect "types" "$("$tool" -l disk.img | cut -d' ' -f4 | tr '\n' ' ')" "fd fd 82 fd "
    [ -x "$peer" ] && expect "types as the peer reads them" "$(entries disk.img | sed 's/.*type=//' | tr '\n' ' ')" "fd fd 82 fd "

    # An absent entry: no line, no message, status 1.
    "$tool" -N4 -q -f -D disk.img
    local out err status
    out=$("$tool" -l -uS -N4 disk.img 2>err.txt); status=$?
    expect "absent entry: status" $status 1
    expect "absent entry: output" "$out" ""
    expect "absent entry: message" "$(cat err.txt)" ""
    out=$("$tool" -l -q -N4 disk.img 2>err.txt); status=$?
    expect "absent entry, -q: status and messages" "$status $(wc -c <err.txt)" "1 0"

    image blank.img 10M
    out=$("$tool" -l blank.img 2>err.txt); status=$?
    expect "no table: status" "$status $(wc -l <err.txt)" "1 1"
}

deletes_and_resets() {
    need_peer
    image disk.img 1500M
    lay disk.img || bad "laying the layout failed"
    local laid dump
    laid=$("$peer" --dump disk.img 2>/dev/null)
    "$tool" -N3 -q -f --no-reread -o0 -z0 -t0 -F -D disk.img || bad "deleting entry 3"
    expect "after deleting entry 3" "$(entries disk.img | cut -c1)" "1
2"
    # Deleting an absent entry succeeds and writes nothing.
    dump=$(fingerprint disk.img)
    "$tool" -N3 -q -f --no-reread -o0 -z0 -t0 -F -D disk.img || bad "deleting an absent entry"
    expect "absent entry deleted: disk" "$(fingerprint disk.img)" "$dump"
    # Re-created, the table is the one first laid (disk identifier included).
    "$tool" -N3 -uS -q -f -j273105 -z-1 -tfd -F disk.img || bad "re-creating entry 3"
    expect "re-created" "$("$peer" --dump disk.img 2>/dev/null)" "$laid"

    # An existing entry is replaced with -f only.
    dump=$(fingerprint disk.img)
    "$tool" -N3 -uS -q -j0 -z1000 -t83 disk.img 2>/dev/null
    expect "replacing without -f: status" $? 1
    expect "replacing without -f: disk" "$(fingerprint disk.img)" "$dump"
    "$tool" -N3 -uS -q -f -j0 -z1000 -t83 disk.img || bad "replacing with -f"
    expect "replaced" "$("$tool" -l -N3 disk.img)" "disk.img3 2361555 1000 83"

    "$tool" -M1 disk.img 2>/dev/null || bad "-M1"
    expect "-M1: entries" "$(entries disk.img)" ""
    expect "-M1: label" "$("$peer" --dump disk.img 2>/dev/null | sed -n 's/^label: //p')" dos
    [ "$("$peer" --dump disk.img 2>/dev/null | grep label-id)" != "$(echo "$laid" | grep label-id)" ] ||
        bad "-M1 kept the old disk identifier"

    # -M1 turns a GPT disk into a DOS one and leaves no GPT header behind.
    image gpt.img 100M
    echo 'label: gpt' | "$peer" -q gpt.img >/dev/null 2>&1 || bad "the peer made no GPT"
    dump=$(fingerprint gpt.img)
    "$tool" -N1 -uS -q -f -j63 -z1000 -tfd -F gpt.img 2>/dev/null
    expect "-F on a GPT disk: status" $? 1
    expect "-F on a GPT disk: disk" "$(fingerprint gpt.img)" "$dump"
    "$tool" -M1 -q gpt.img || bad "-M1 on a GPT disk"
    expect "-M1 on a GPT disk" "$(blkid -p -o value -s PTTYPE gpt.img)" dos
    expect "-M1 on a GPT disk: signatures left" "$(wipefs -n gpt.img 2>/dev/null | awk 'NR > 1 {print $3}')" dos

    # A blank disk: -F writes a table, without -F the disk is refused.
    image blank.img 100M
    dump=$(fingerprint blank.img)
    "$tool" -N1 -uS -q -f -j63 -z1000 -tfd blank.img 2>err.txt
    expect "no -F on a blank disk: status and message" "$? $(wc -l <err.txt)" "1 1"
    expect "no -F on a blank disk: disk" "$(fingerprint blank.img)" "$dump"
    "$tool" -N1 -q -f -D blank.img || bad "deleting on a blank disk"
    expect "deleting on a blank disk: disk" "$(fingerprint blank.img)" "$dump"
    "$tool" -N1 -uS -q -f -j63 -z1000 -tfd -F blank.img || bad "-F on a blank disk"
    expect "-F on a blank disk" "$(entries blank.img)" "1 : start=          63, size=        1000, type=fd"

    # A file system on the bare disk: -F writes over it with -f only.
    if command -v mkfs.ext4 >/dev/null; then
        image fs.img 64M
        mkfs.ext4 -q -F fs.img >/dev/null 2>&1
        dump=$(fingerprint fs.img)
        "$tool" -N1 -uS -q -j63 -z1000 -tfd -F fs.img 2>/dev/null
        expect "-F over a file system without -f: status" $? 1
        expect "-F over a file system without -f: disk" "$(fingerprint fs.img)" "$dump"
        "$tool" -N1 -uS -q -f -j63 -z1000 -tfd -F fs.img || bad "-F over a file system with -f"
    fi
}

# refused STATUS ARGS...: the tool fails with STATUS and exactly one line on
# standard error, and disk.img is unchanged.
refused() {
    local want=$1
    shift
    local before status
    before=$(fingerprint disk.img)
    "$tool" "$@" >out.txt 2>err.txt
    status=$?
    expect "sfdisk $*: status" $status "$want"
    expect "sfdisk $*: disk" "$(fingerprint disk.img)" "$before"
    expect "sfdisk $*: message" "$(wc -l <err.txt) $(cut -c1-8 err.txt)" "1 sfdisk: "
    expect "sfdisk $*: output" "$(wc -c <out.txt)" 0
}

refusals_leave_the_disk_unchanged() {
    # Big enough for entries 1 and 2, too small for the data entry.
    image disk.img 1200M
    "$tool" -N1 -uS -q -f -j63 -z1574307 -tfd -F disk.img &&
        "$tool" -N2 -uS -q -f -j0 -z787185 -tfd -F disk.img || bad "entries 1 and 2"
    local c='-uS -q -f'
    refused 1 -N3 $c -j273105 -z-1 -tfd -F disk.img            # starts beyond the end
    refused 1 -N3 $c -j0 -z1000000 -tfd disk.img               # ends beyond the end
    refused 1 -N3 $c -j0 -z99999999999999999 -tfd disk.img     # the end overflows
    refused 1 -N3 $c -j99999999999999999 -z1 -tfd disk.img     # the start overflows
    refused 1 -N1 $c -j63 -z1574308 -tfd disk.img              # overlaps entry 2
    "$tool" -N1 -q -f -D disk.img || bad "deleting entry 1"
    refused 1 -N1 $c -j0 -z10 -tfd disk.img                    # sector 0
    refused 1 -N1 $c -j1 -z2000000 -tfd disk.img               # overlaps entry 2 from below
    refused 1 -N5 $c -j0 -z10 -tfd disk.img
    refused 1 -N0 $c -j0 -z10 -tfd disk.img
    refused 1 -N3 $c -j0 -z10 -tzz disk.img
    refused 1 -N3 $c -j0 -z10 -t100 disk.img
    refused 1 -N3 $c -j0 -z10 -t0 disk.img
    refused 1 -N3 $c -j0 -z0 -tfd disk.img
    refused 1 -N3 -q -f -D -t83 disk.img
    refused 1 -N3 -q -f -j0 -z10 -tfd disk.img.absent
    refused 1 -N3 -q -f -j0 -z10 -tfd .
    refused 1 -N3 -q -f -j0 -z10 -tfd /dev/null
    refused 2 -N3 $c -j0 -z10 -tfd -x disk.img
    refused 2 -N3 $c -j0 -z10 -tfd --bogus disk.img
    refused 2 -N3 $c -j0 -z10 -tfd disk.img disk.img
    refused 2 -N3 $c -j0 -z10 -tfd -- -x
    refused 2 -N3 $c -j0 -z10 -tfd
    refused 2 -N3 $c -j0 -tfd disk.img
    refused 2 -N3 $c -j0 -z-2 -tfd disk.img
    refused 2 -N3 $c -j-1 -z10 -tfd disk.img
    refused 2 -Nx $c -j0 -z10 -tfd disk.img
    refused 2 -N3 -uB -j0 -z10 -tfd disk.img
    refused 2 -N3 $c -j0 -z10 -tfd -z11 disk.img
    refused 2 -M2 disk.img
    refused 2 -M1 -N3 disk.img
    refused 2 -l -D -N3 disk.img
    refused 2 -N3 -D -z5 disk.img
    refused 2 -N3 -o1 -D disk.img
    refused 2 -z10 disk.img
    refused 2 disk.img
    refused 2 -N3 $c -j0 -z10 -tfd ''
    # The refused entries are still absent and the rest as laid.
    expect "entries after the refusals" "$("$tool" -l disk.img)" "disk.img2 1574370 787185 fd"
}

warns_without_force() {
    need_peer
    # A disk larger than a DOS table can address: with -f the data entry
    # ends at sector 4294967295, like the peer's.
    image big.img 3T
    "$tool" -N1 -uS -q -j63 -z1574307 -tfd -F big.img 2>err.txt
    expect "3 TiB disk without -f: status and message" "$? $(wc -l <err.txt)" "1 1"
    expect "3 TiB disk without -f: table" "$(blkid -p -o value -s PTTYPE big.img)" ""
    lay big.img || bad "laying a 3 TiB disk"
    image theirs.img 3T
    peer_lay theirs.img
    expect "3 TiB disk beside the peer" "$(entries big.img)" "$(entries theirs.img)"
    expect "3 TiB disk: data entry" "$("$tool" -l -N3 big.img)" "big.img3 2634660 4292332636 fd"
}

tells_the_kernel_on_a_block_device() {
    [ "$(id -u)" = 0 ] || { echo "SKIP: needs root for a loop device" >&2; exit 77; }
    image disk.img 1500M
    loop=$(losetup -f --show -P disk.img 2>/dev/null) || { echo "SKIP: no loop device" >&2; exit 77; }
    local name=${loop#/dev/}
    parts() { ls /sys/block/$name | grep "^${name}p" | tr '\n' ' '; }
    "$tool" -N1 -uS -q -f -j63 -z1574307 -tfd -F "$loop" || bad "entry 1 on $loop"
    expect "kernel after entry 1" "$(parts)" "${name}p1 "
    expect "listing on $loop" "$("$tool" -l -N1 "$loop")" "${loop}p1 63 1574307 fd"
    # A partition is not a disk.
    "$tool" -l "${loop}p1" 2>/dev/null
    expect "a partition as the device" $? 1

    # Entry 1 held by someone (a mounted file system, an array): refused
    # without -f; with -f entry 2 is written and the kernel learns of it.
    python3 -c 'import os, sys, time
os.open(sys.argv[1], os.O_RDONLY | os.O_EXCL)
open(sys.argv[2], "w").close()
time.sleep(60)' "${loop}p1" held &
    local holder=$!
    for _ in $(seq 100); do [ -e held ] && break; sleep 0.1; done
    [ -e held ] || bad "could not hold ${loop}p1"
    "$tool" -N2 -uS -q -j0 -z787185 -tfd "$loop" 2>/dev/null
    expect "busy disk without -f" $? 1
    "$tool" -N2 -uS -q -f -j0 -z787185 -tfd "$loop" || bad "busy disk with -f"
    expect "kernel after entry 2 on a busy disk" "$(parts)" "${name}p1 ${name}p2 "
    kill $holder
    wait $holder 2>/dev/null
    # --no-reread leaves the kernel as it was.
    "$tool" -N3 -uS -q -f --no-reread -j273105 -z-1 -tfd "$loop" || bad "entry 3 with --no-reread"
    expect "kernel after --no-reread" "$(parts)" "${name}p1 ${name}p2 "
    "$tool" -M1 -q "$loop" || bad "-M1 on $loop"
    expect "kernel after -M1" "$(parts)" ""
}

case $group in
lays_the_appliance_layout_like_util_linux | lists_partitions | deletes_and_resets | \
    refusals_leave_the_disk_unchanged | warns_without_force | tells_the_kernel_on_a_block_device)
    $group ;;
*) echo "unknown group $group" >&2; exit 2 ;;
esac
[ $failures -eq 0 ] || { echo "$failures failure(s)" >&2; exit 1; }
echo "passed"
