#!/bin/sh
# kemoctl's shared memory segments and its operation runner, end to end:
# "op run" holds its registration exactly while the command runs, passes
# the command's status and kemoctl's own SIGTERM through, refuses or waits
# on conflicts (exit 75), and leaves no entry behind however it ends.
#
# Runs as root in a fresh appliance sandbox with its own IPC namespace,
# with kemoctl, ipcs and stat on PATH.
set -u
for tool in kemoctl ipcs stat; do
    command -v "$tool" > /dev/null || { echo "SKIP: no $tool"; exit 77; }
done
failures=0
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT
fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}
# expect STATUS COMMAND...: runs the command, output in $work/out and
# $work/err, and checks its exit status.
expect() {
    want=$1
    shift
    "$@" > "$work/out" 2> "$work/err"
    got=$?
    [ "$got" -eq "$want" ] || fail "$*: exit $got, not $want ($(cat "$work/err"))"
}
has() { grep -q -e "$2" "$work/$1" || fail "$1 of the last command lacks '$2': $(cat "$work/$1")"; }
# until_true COMMAND...: polls for up to 5 s.
until_true() {
    i=0
    while ! "$@"; do
        i=$((i + 1))
        [ "$i" -lt 50 ] || { fail "timed out waiting for: $*"; return 1; }
        sleep 0.1
    done
}
listed() { kemoctl op list | grep -q " $1 *pid $2 *$3"; }
no_entries() { [ -z "$(kemoctl op list)" ] || fail "entries left: $(kemoctl op list)"; }
# A command for op run that records its pid (once kemoctl's signal
# forwarding is in place) and then sleeps.
held() { echo "sh -c 'echo \$\$ > $work/$1.pid; exec sleep $2'"; }

# ---- segments
seg=/tmp/tour.seg
expect 0 kemoctl shm create "$seg" 4096
[ "$(stat -c '%a %U %s' "$seg")" = "600 root 96" ] || fail "descriptor: $(stat -c '%a %U %s' "$seg")"
expect 0 kemoctl shm put "$seg" "state: resync 42%"
expect 0 kemoctl shm get "$seg"
[ "$(cat "$work/out")" = "state: resync 42%" ] || fail "get returned '$(cat "$work/out")'"
expect 0 kemoctl shm show "$seg"
has out '^semaphore: 1 (free)'
has out '^size: 4096'
expect 1 kemoctl shm create "$seg" 128
expect 0 kemoctl shm get "$seg"
[ "$(cat "$work/out")" = "state: resync 42%" ] || fail "a refused create changed the segment"
expect 0 kemoctl shm delete "$seg"
[ ! -e "$seg" ] || fail "delete left the descriptor file"
[ -z "$(ipcs -m | grep '^0x')$(ipcs -s | grep '^0x')" ] || fail "delete left objects: $(ipcs -m -s)"
expect 1 kemoctl shm get "$seg"

# ---- a running operation refuses a conflicting one
expect 0 kemoctl op check account
has out 'account may start'
no_entries
eval "kemoctl op run restore --wait 2000 -- $(held restore 30) &"
restore=$!
until_true test -s "$work/restore.pid"
listed restore "$restore" running || fail "restore not listed as running: $(kemoctl op list)"
expect 75 kemoctl op run hostname -- touch "$work/ran"
has err "hostname refused by running restore (pid $restore)"
[ ! -e "$work/ran" ] || fail "a refused command ran"
expect 75 kemoctl op check hostname
has err "refused by running restore (pid $restore)"

# SIGTERM to kemoctl ends the command; the entry goes with it.
kill -TERM "$restore"
wait "$restore"
status=$?
[ "$status" -eq 143 ] || fail "kemoctl ended by SIGTERM with $status, not 143"
kill -0 "$(cat "$work/restore.pid")" 2> /dev/null && fail "the command outlived kemoctl's SIGTERM"
no_entries

# ---- statuses, and no entry left however the command ended
expect 7 kemoctl op run restore -- sh -c 'exit 7'
expect 137 kemoctl op run restore -- sh -c 'kill -KILL $$'
expect 127 kemoctl op run restore -- "$work/no-such-program"
has err 'cannot run'
no_entries
expect 2 kemoctl op run no-such-op -- true
expect 2 kemoctl op run restore true
expect 2 kemoctl op run restore --
expect 2 kemoctl op run restore --wait soon -- true
expect 2 kemoctl op check
no_entries

# ---- a backup makes an account change wait
: > "$work/hold"
kemoctl op run backup --wait 2000 -- sh -c "echo \$\$ > $work/backup.pid; while [ -e $work/hold ]; do sleep 0.05; done" &
backup=$!
until_true test -s "$work/backup.pid"
expect 75 kemoctl op run account --wait 400 -- true
has err "account still waiting after 400 ms for running backup (pid $backup)"
expect 0 kemoctl op run account --ignore-waits -- true
(sleep 1; rm -f "$work/hold") &
# The command runs only once the backup has let go.
expect 0 kemoctl op run account --wait 5000 -- sh -c "[ ! -e $work/hold ]"
wait "$backup" || fail "backup ended with $?"
no_entries

# ---- a killed kemoctl leaves a dead entry until the next registration
eval "kemoctl op run restore --wait 2000 -- $(held killed 30) &"
killed=$!
until_true test -s "$work/killed.pid"
kill -KILL "$killed"
wait "$killed" 2> /dev/null
kill "$(cat "$work/killed.pid")"
listed restore "$killed" dead || fail "no dead restore entry: $(kemoctl op list)"
expect 0 kemoctl op run hostname -- true
no_entries

[ "$failures" -eq 0 ] || { echo "$failures failure(s)"; exit 1; }
echo "kemoctl shm and op: all checks passed"
