#!/bin/sh
# Control script of the UPS daemons: the driver of the UPS named "ups" and
# the data server upsd, which answers on 127.0.0.1 only.  Their
# configuration is in /usr/kemo/etc (ups.conf, upsd.conf, upsd.users,
# upssched.conf), their sockets and pid files in a directory of root's
# alone.
#
#   ups.sh start     starts them when UPS support is on (ups_enabled="yes")
#   ups.sh stop      stops them and waits until they are gone
#   ups.sh restart   both, so that changed settings take effect
#
# The appliance has no account of the daemons' own: they keep running as
# root, reachable from this machine only.
PATH=/sbin:/bin:/usr/sbin:/usr/bin
NUT_CONFPATH=/usr/kemo/etc
NUT_STATEPATH=/run/ups
export PATH NUT_CONFPATH NUT_STATEPATH
SETTINGS=/etc/kemoinfo.conf

first() {
    for program; do
        [ -x "$program" ] && { echo "$program"; return 0; }
    done
    return 1
}
DRVCTL=$(first /lib/nut/upsdrvctl /sbin/upsdrvctl /usr/sbin/upsdrvctl)
# /lib/nut/upsd is the server itself; elsewhere it is /usr/sbin/upsd.
UPSD=$(first /lib/nut/upsd /usr/sbin/upsd)

# The pid a pid file of ours names, when that process is alive.
alive() {
    pid=$(head -n 1 "$NUT_STATEPATH/$1" 2>/dev/null)
    case $pid in '' | *[!0-9]*) return 1 ;; esac
    [ "$pid" -gt 1 ] && kill -0 "$pid" 2>/dev/null && echo "$pid"
}

running() {
    alive upsd.pid >/dev/null
}

start() {
    [ "$(/bin/get_key_value "$SETTINGS" ups_enabled 2>/dev/null)" = yes ] || return 0
    running && return 0
    if [ -z "$DRVCTL" ] || [ -z "$UPSD" ]; then
        echo "ups.sh: the UPS daemons are not installed" >&2
        return 1
    fi
    # A state directory someone else made is not used.
    if [ -L "$NUT_STATEPATH" ] || { [ -d "$NUT_STATEPATH" ] && [ "$(stat -c %u "$NUT_STATEPATH")" != 0 ]; }; then
        echo "ups.sh: $NUT_STATEPATH is not root's own" >&2
        return 1
    fi
    mkdir -p -m 0700 "$NUT_STATEPATH" && chmod 0700 "$NUT_STATEPATH" || return 1
    "$DRVCTL" -u root start ups || return 1
    if ! "$UPSD" -u root; then
        "$DRVCTL" -u root stop ups
        return 1
    fi
    # The server writes its pid file once in the background: wait for it,
    # so that a stop right after this start finds it.
    tries=50
    while ! running && [ $tries -gt 0 ]; do
        tries=$((tries - 1))
        sleep 0.1
    done
    running
}

stop() {
    pids="$(alive upsd.pid) $(for f in "$NUT_STATEPATH"/*.pid; do
        [ "${f##*/}" = upsd.pid ] || alive "${f##*/}"
    done)"
    [ -n "${pids# }" ] || return 0
    running && "$UPSD" -c stop
    [ -n "$DRVCTL" ] && "$DRVCTL" -u root stop ups
    # Wait up to 5 seconds for both to be gone.
    tries=50
    while [ $tries -gt 0 ]; do
        left=
        for pid in $pids; do
            kill -0 "$pid" 2>/dev/null && left="$left $pid"
        done
        [ -z "$left" ] && return 0
        tries=$((tries - 1))
        sleep 0.1
    done
    echo "ups.sh: still running:$left" >&2
    return 1
}

case $1 in
start) start ;;
stop) stop ;;
restart) stop && start ;;
*)
    echo "usage: ups.sh start|stop|restart" >&2
    exit 2
    ;;
esac
