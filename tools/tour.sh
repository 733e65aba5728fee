#!/bin/sh
# A short tour of libkemo through kemoctl, meant to run on a fresh factory
# appliance (inside kemo-sandbox): every step prints the command it runs.
set -e
# The tour starts a daemon that listens (the UPS data server) and meets the
# discovery protocol: it runs in a network namespace of its own with only a
# loopback interface, so nothing of it reaches this machine's network.
if [ -z "${KEMO_TOUR_PRIVATE_NET:-}" ]; then
    export KEMO_TOUR_PRIVATE_NET=1 PATH="$PATH:/usr/sbin:/sbin"
    exec unshare --net sh -c 'ip link set lo up && exec sh "$0"' "$0"
fi
# The command line as one would type it: words with blanks or shell
# characters in single quotes.
shown() {
    line=
    for word; do
        case $word in
        '' | *[[:space:]\'\"\$\`\\\|\&\;\(\)\<\>\*\?\[\]\{\}#~!]*)
            word="'$(printf '%s' "$word" | sed "s/'/'\\\\''/g")'" ;;
        esac
        line="$line${line:+ }$word"
    done
    printf '%s' "$line"
}
step() {
    printf '\n$ %s\n' "$(shown "$@")"
    "$@"
}
# feed TEXT COMMAND...: a step whose standard input is TEXT (printf escapes).
feed() {
    input=$1
    shift
    printf '\n$ printf %s | %s\n' "$(shown "$input")" "$(shown "$@")"
    printf '%b' "$input" | "$@"
}

echo "== The library"
step kemoctl version
step kemoctl error 0x2000
echo "(the first error names of $(kemoctl errors | wc -l) in the table:)"
kemoctl errors | head -n 8

echo
echo "== String lists: unsorted with a gap, byte order, and case-insensitive order"
step kemoctl list --at 5 homes backup media Public
step kemoctl list --sort byte --find Public media backup Public
step kemoctl list --sort case --find PUBLIC media backup Public Straße
step kemoctl setop or --sort case admin,guest,Alice ALICE,bob
step kemoctl setop sub admin,guest,alice guest

echo
echo "== String hashes: set, replace, remove, look up"
step kemoctl hash hostname=kemo-nas workgroup=WORKGROUP hostname=nas2 --remove workgroup --get hostname

echo
echo "== Settings files: read, change and remove keys (comments and other lines stay as they were)"
step kemoctl get /etc/kemoinfo.conf codepage
step kemoctl set --quote /etc/kemoinfo.conf codepage 1252
step get_key_value /etc/kemoinfo.conf codepage
step set_key_value /etc/kemoinfo.conf timezone Europe/Paris
step grep -n -e codepage -e timezone /etc/kemoinfo.conf
step kemoctl unset /etc/kemoinfo.conf timezone

echo
echo "== Sections of the file-sharing configuration"
step kemoctl sections /usr/kemo/etc/smb.conf
step kemoctl section /usr/kemo/etc/smb.conf photo
step kemoctl section-set /usr/kemo/etc/smb.conf music "path=/volume1/music" "comment=Music"
step cat /usr/kemo/etc/smb.conf
step kemoctl section-remove /usr/kemo/etc/smb.conf music
step kemoctl sections /usr/kemo/etc/smb.conf

echo
echo "== The factory appliance this tour runs on"
step head -n 3 /etc/passwd
step ls -l /etc/shadow /usr/kemo/etc/smb.conf

echo
echo "== Users: one alone, three in one transaction (names compare without case)"
step kemoctl user add alice --password Alice-pw1 --desc "Alice Martin" --mail alice@example.com --expire 2030-12-31
feed 'bob:Bob-pw2:Bob Stone\ncarol:Carol-pw3\ndave:Dave-pw4:Dave (intern)\n' kemoctl user add-batch
step kemoctl user show alice
step kemoctl user add ALICE --password other || true

echo
echo "== A group; renaming a user follows into group members and share lists"
step kemoctl group add team alice bob
step kemoctl section-set /usr/kemo/etc/smb.conf photo "write list=nobody,@administrators,bob,nobody"
step kemoctl user rename bob robert
step kemoctl group show team
step kemoctl share show photo

echo
echo "== Access by the share lists (deny first, then read-write, then read-only)"
step kemoctl share access public alice
step kemoctl share access photo alice
step kemoctl share access photo robert

echo
echo "== Deleting a user; the users and groups left"
step kemoctl user delete carol
step kemoctl user list
step kemoctl group list

echo
echo "== Event log: events by id with arguments, shown in the reader's language"
step kemoctl log add 1 1 12200006
step kemoctl log add 1 1 0x12200001 dave admin
step kemoctl log add 1 2 12200008 volume1 91
step kemoctl log add 1 3 12200009 /dev/sdb volume1
step kemoctl log show 1
step kemoctl log show 1 ger
step kemoctl log size 1 32768
step kemoctl get /etc/kemolog.conf syslogfilesize_MAX

echo
echo "== Configuration backup: save it, check it, restore it on a fresh factory appliance"
step kemoctl group desc team "Project team"
step kemoctl hostname tour-nas
step kemoctl backup export /tmp/tour.kbk
step kemoctl backup list /tmp/tour.kbk
echo "(host name 2, users 100, groups 200, shares 20:)"
step kemoctl backup check /tmp/tour.kbk 322
# kemo-sandbox nests: a second, fresh appliance with only the backup file.
restore='kemoctl hostname; kemoctl backup import /tmp/tour.kbk 322; kemoctl hostname; kemoctl user list; '
restore=$restore'kemoctl group show team; kemoctl group desc team; kemoctl share access photo robert; '
restore=$restore'kemoctl log show 1 | tail -n 1'
step kemo-sandbox --place /tmp/tour.kbk:/tmp/tour.kbk -- sh -exc "$restore"

echo
echo "== Time: the zone from the tz database, the date, and the time server in the scheduler's table"
step kemoctl time show
echo "(the first of $(kemoctl time zones | wc -l) zones, generated from this machine's tz database:)"
kemoctl time zones | head -n 5
step kemoctl time zone Asia/Kathmandu
step kemoctl time zone
step cat /etc/TZ /etc/sysconfig/clock
step cmp /etc/localtime /usr/share/zoneinfo/Timezone/Asia/Kathmandu
echo "(names outside the zone table are refused before anything changes)"
step kemoctl time zone ../etc/passwd || echo "exit $?"
echo "(the date is checked first; this clock is the machine's own, so only a refused date here)"
step kemoctl time set-date 2100-02-29 12:00:00 || echo "exit $?"
step kemoctl time ntp on --period weekly --server pool.ntp.org --backup time.nist.gov
step grep ntpdate /etc/crontab
echo "(an unknown period runs daily; the one line is replaced)"
step kemoctl time ntp --period hourly
step grep ntpdate /etc/crontab
echo "(switching off removes the line and keeps the choices)"
step kemoctl time ntp off
step grep -c ntpdate /etc/crontab || echo "exit $?"
step kemoctl time ntp
step kemoctl time zone Greenwich

echo
echo "== Finding appliances on the network"
echo "(kemoctl find broadcasts a query, waits 10 s for the answers the discovery"
echo " daemons send, then lists them; here we read a list as the daemon leaves it,"
echo " so that the tour sends nothing on this machine's network)"
feed '410,262,nas-b,10.99.0.2,02:00:00:aa:bb:02\n0,300,broken,10.99.0.3,02:00:00:aa:bb:03\n410,239,old-firmware,10.99.0.4,02:00:00:aa:bb:04\n410,262,nas-c,10.99.0.5,02:00:00:aa:bb:05\n' tee /tmp/kemobx.list.tmp
step kemoctl find --list
echo "(model number 0 and builds below 240 are left out; the list is removed once read:)"
step kemoctl find --list

echo
echo "== Operations and shared state: a text published through a segment, and the registry of running operations"
step kemoctl shm create /tmp/tour.seg 4096
step kemoctl shm put /tmp/tour.seg "volume1: resync 42%"
step kemoctl shm get /tmp/tour.seg
step kemoctl shm show /tmp/tour.seg
step kemoctl shm delete /tmp/tour.seg
# started NAME COMMAND...: runs an "op run" of NAME in the background, and
# waits (5 s at most) until the registry lists it; its pid in $job.  (The
# jobs get a --wait: the listing here holds the registry's lock now and
# then, and a registration without a time-out tries the lock only once.)
started() {
    name=$1
    shift
    printf '\n$ %s &\n' "$(shown "$@")"
    "$@" &
    job=$! i=0
    until kemoctl op list | grep -q " $name .*running" || [ $((i += 1)) -gt 50 ]; do sleep 0.1; done
}
started restore kemoctl op run restore --wait 2000 -- sleep 60
step kemoctl op list
echo "(a restore refuses a host name change: exit 75, and nothing runs)"
step kemoctl op run hostname -- hostname tour-nas2 || echo "exit $?"
echo "(kemoctl passes SIGTERM to its command, and unregisters once it ended)"
step kill "$job"
wait "$job" || echo "restore ended with exit $?"
step kemoctl op list
echo "(a backup makes an account change wait; this one waits up to 3 s and then runs)"
started backup kemoctl op run backup --wait 2000 -- sleep 1
step kemoctl op run account --wait 3000 -- echo "account changed after the backup"
wait "$job"
echo "(the first of $(kemoctl op names | wc -l) operations, with their categories:)"
kemoctl op names | head -n 8

echo
echo "== The UPS: settings, the shutdown timer and the live state"
echo "(the factory appliance has UPS support off: no daemons run, so the live state is unknown)"
step kemoctl ups show
echo "(for this tour a demonstration UPS: the dummy driver, which serves the variables of a file)"
printf '[ups]\n\tdriver = dummy-ups\n\tport = /tmp/demo-ups.dev\n' > /usr/kemo/etc/ups.conf
printf 'ups.mfr: Acme Power\nups.model: Guard 650\nups.status: OL CHRG\nups.load: 23.0\nbattery.runtime: 1200\nbattery.charge: 87\n' > /tmp/demo-ups.dev
echo "(switching support on stores the settings, sets the timer in seconds and restarts the daemons)"
step kemoctl ups set on --wait 10
step grep -e ups_enabled -e ups_wait_time /etc/kemoinfo.conf
step grep "AT ONBATT" /usr/kemo/etc/upssched.conf
sleep 2
step kemoctl ups show
echo "(power fails: the UPS goes on battery, and its battery runs low; the driver rereads its file)"
sed -i 's/^ups.status: .*/ups.status: OB LB/; s/^battery.charge: .*/battery.charge: 9/' /tmp/demo-ups.dev
sleep 3
step kemoctl ups show
echo "(a wait time the timer cannot hold is refused)"
step kemoctl ups set on --wait 100000 || true
echo "(switching support off stops the daemons: the live state is unknown again)"
step kemoctl ups set off
step kemoctl ups show
