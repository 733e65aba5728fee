#!/bin/sh
# The web administration service: start (only while "runweb" is yes) or stop.
# Records the state.
case "$1" in
start)
    on=no
    while IFS= read -r line; do
        case "$line" in
        runweb=yes | runweb=\"yes\") on=yes ;;
        esac
    done </etc/kemoinfo.conf
    [ "$on" = yes ] || exit 0
    state=running ;;
stop) state=stopped ;;
*) echo "usage: $0 start|stop" >&2; exit 2 ;;
esac
[ -d /var/run ] || mkdir -p /var/run || exit 1
echo "$state" >/var/run/web.state
