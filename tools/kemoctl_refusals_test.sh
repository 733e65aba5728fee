#!/bin/sh
# kemoctl refuses hostile arguments before the library sees them: a CR, LF
# or NUL in a name, key or value (from the command line or standard input)
# is a usage error (exit 2) that names the problem and leaves every file as
# it was; after "--" every argument is a word, never an option.
#
# Runs as root on a fresh factory appliance (inside kemo-sandbox) with
# kemoctl on PATH.
set -u
failures=0
files='/etc/kemoinfo.conf /usr/kemo/etc/smb.conf /etc/passwd /etc/shadow /etc/group /etc/group_desc
/usr/kemo/etc/private/smbpasswd /etc/hostname /etc/kemolog.conf'
work=$(mktemp -d) || exit 1
trap 'rm -rf "$work"' EXIT

snapshot() {
    for f in $files; do
        if [ -e "$f" ]; then cat "$f"; else echo "(no $f)"; fi
    done > "$work/$1"
}

fail() {
    echo "FAIL: $*"
    failures=$((failures + 1))
}

# refused INPUT ARG...: kemoctl ARG... with INPUT (printf escapes) on
# standard input exits 2, says why on standard error and changes no file.
refused() {
    input=$1
    shift
    snapshot before
    printf "$input" | kemoctl "$@" > "$work/out" 2> "$work/err"
    status=$?
    snapshot after
    shown=$(printf ' %s' "$@" | sed -n l | tr -d '\n')
    [ "$status" -eq 2 ] || fail "exit $status, not 2, for:$shown ($(cat "$work/err"))"
    grep -q 'CR, LF or NUL' "$work/err" || fail "no reason given for:$shown ($(cat "$work/err"))"
    cmp -s "$work/before" "$work/after" || fail "files changed by:$shown"
}

nl='
'
cr=$(printf '\r')
kemoctl user add alice --password Alice-pw1 > /dev/null || fail "cannot add alice"
kemoctl group add team alice > /dev/null || fail "cannot add team"

# Settings: a line break in a key or value would add a line of its own.
refused '' set /etc/kemoinfo.conf codepage "1252${nl}admin_port=1"
refused '' set /etc/kemoinfo.conf "codepage${nl}admin_port" 1
refused '' set --quote /etc/kemoinfo.conf codepage "1252${cr}"
refused '' unset /etc/kemoinfo.conf "codepage${nl}"
refused '' get /etc/kemoinfo.conf "codepage${nl}"

# Sections: a new section header, or a key of another section.
refused '' section-set /usr/kemo/etc/smb.conf "music]${nl}[homes" path=/volume1/music
refused '' section-set /usr/kemo/etc/smb.conf music "path=/volume1/music${nl}guest ok=yes"
refused '' section-set /usr/kemo/etc/smb.conf music "comment${cr}=x"
refused '' section-remove /usr/kemo/etc/smb.conf "photo${nl}"

# Users and groups: account lines, from the command line and from stdin.
refused '' user add "eve${nl}root::0:0::/:/bin/sh" --password pw
refused '' user add eve --password pw --desc "Eve${nl}root::0:0"
refused '' user add eve --password pw --mail "eve@example.com${cr}"
refused '' user modify alice --desc "A${nl}B"
refused '' user rename alice "alice${nl}2"
refused 'pw\000root\n' user add eve --password-stdin
refused 'pw\rmore\n' user password alice
refused 'pw\000x\n' user password alice
refused 'bob:Bob-pw2\neve:pw\000x:desc\n' user add-batch
refused 'bob:Bob-pw2\neve:p\rw:desc\n' user add-batch
refused '' group add "staff${nl}wheel"
refused '' group add staff alice "bob${nl}root"
refused '' group modify team "alice${cr}"
refused '' group desc team "Team${nl}staff=x"

# Event log arguments and the host name.
refused '' log add 1 1 12200001 "dave${nl}forged line" admin
refused '' hostname "nas${nl}evil"

# A CR that ends a line of standard input is its line end, not a refusal.
printf 'Alice-pw2\r\n' | kemoctl user password alice > /dev/null 2>&1 ||
    fail "a CR LF line end on standard input is refused"

# After "--" an argument that looks like an option is a word.
kemoctl set /etc/kemoinfo.conf -- dashed --quote > /dev/null 2>&1 ||
    fail "set refuses a value after --"
[ "$(kemoctl get /etc/kemoinfo.conf dashed 2> /dev/null)" = "--quote" ] ||
    fail "the value after -- is not stored as given"
kemoctl list -- --sort byte > "$work/out" 2>&1 || fail "list refuses items after --"
grep -q -- '\[0\] --sort' "$work/out" || fail "an item after -- is taken for an option"

# The appliance's own setter program: the library refuses the break.
snapshot before
set_key_value /etc/kemoinfo.conf codepage "1252${nl}domainjoined=yes" > /dev/null 2> "$work/err"
status=$?
snapshot after
[ "$status" -eq 1 ] || fail "set_key_value exits $status on a value with a line break"
grep -q ERR_BAD_PARAMETERS "$work/err" || fail "set_key_value gives no reason ($(cat "$work/err"))"
cmp -s "$work/before" "$work/after" || fail "set_key_value wrote a value with a line break"

if [ "$failures" -ne 0 ]; then
    echo "$failures failure(s)"
    exit 1
fi
echo "all refusals hold"
