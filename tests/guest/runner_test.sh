#!/bin/sh
# The runner's own behaviour, run on this machine:
#   runner_test.sh KEMO_GUEST BUILD_DIR GUEST_ONLY_PROGRAM
# refuses bad arguments before booting anything; passes the program's output
# and exit status through; reports a kernel panic and a timeout with status
# 3; and a guest-only program skips (77) outside the guest, even with
# KEMO_GUEST=1 set.
set -u
runner=$1 build=$2 guest_only=$3
failures=0
check() { # check WHAT EXPECTED_STATUS ACTUAL_STATUS
    if [ "$2" != "$3" ]; then
        echo "FAIL: $1: status $3, expected $2"
        failures=$((failures + 1))
    fi
}

# Refused before a guest starts (status 2, at once).
long=$(printf '%041d' 0)
for args in "--model 4=X -- true" "--model 0=$long -- true" "--serial 1=$(printf '%021d' 0) -- true" \
    "--disk-size 2X -- true" "--disk-size -1G -- true" "--timeout 0 -- true" \
    "--program /etc/passwd:/bin/x -- true" "--program $build/no-such:/bin/x -- true" \
    "--program $guest_only:bin/x -- true" "--unknown -- true" "--build"; do
    # shellcheck disable=SC2086 # the cases are word lists
    "$runner" --build "$build" $args >/dev/null 2>&1
    check "kemo-guest $args" 2 $?
done
KEMO_GUEST=1 "$runner" --build "$build" -- true >/dev/null 2>&1
check "a runner inside a guest" 2 $?

# Arguments arrive whole, whatever they hold.
arg=$(printf "it's \"one\"\n\\ \$HOME \`x\` *")
out=$("$runner" --build "$build" -- printf '%s|' "$arg" "" -x 2>/dev/null)
check "odd arguments" 0 $?
[ "$out" = "$arg||-x|" ] || { echo "FAIL: arguments arrived as: $out"; failures=$((failures + 1)); }

# A guest-only program on this machine skips, whatever the environment says.
"$guest_only" >/dev/null 2>&1
check "guest-only program on the host" 77 $?
KEMO_GUEST=1 "$guest_only" >/dev/null 2>&1
check "guest-only program on the host with KEMO_GUEST=1" 77 $?

# Output and exit status come back; a panic and a timeout are reported.
out=$("$runner" --build "$build" -- sh -c 'echo "first line"; echo; printf "in the guest: %s" "$KEMO_GUEST"; exit 7' 2>/dev/null)
check "exit status passed through" 7 $?
expected=$(printf 'first line\n\nin the guest: 1')
[ "$out" = "$expected" ] || { echo "FAIL: output passed through as: $out"; failures=$((failures + 1)); }
# The guest's system log is shown when the program fails.
out=$("$runner" --build "$build" -- sh -c 'logger -t tiercheck "logged in the guest"; exit 1' 2>&1)
check "a failing program" 1 $?
case $out in *"tiercheck: logged in the guest"*) ;; *) echo "FAIL: no system log: $out"; failures=$((failures + 1)) ;; esac
out=$("$runner" --build "$build" -- sh -c 'echo c >/proc/sysrq-trigger' 2>&1)
check "a kernel panic" 3 $?
case $out in *"did not report"*) ;; *) echo "FAIL: panic not reported: $out"; failures=$((failures + 1)) ;; esac
out=$("$runner" --build "$build" --timeout 8 -- sleep 600 2>&1)
check "a timeout" 3 $?
case $out in *"timed out after 8 s"*) ;; *) echo "FAIL: timeout not reported: $out"; failures=$((failures + 1)) ;; esac

[ "$failures" -eq 0 ] || exit 1
echo "runner_test: all checks passed"
