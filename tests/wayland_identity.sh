#!/bin/sh
# The name that the window tells a Wayland desktop is that of the desktop entry.
# $1: the program, $2: the desktop entry. 77, which counts as skipped, without a compositor to ask.
set -eu
program=$1
id=$(basename "$2" .desktop)
command -v weston > /dev/null || { echo "SKIP: no weston"; exit 77; }

home=$(mktemp -d)
started=
end() {
    trap '' HUP INT TERM
    for pid in $started; do
        kill "$pid" 2> /dev/null || :
    done
    wait
    rm -rf "$home"
}
trap end EXIT
trap 'exit 1' HUP INT TERM
mkdir -m 700 "$home/runtime"
mkdir "$home/Orrinvale"
printf '[General]\ncheckForUpdates=false\n' > "$home/Orrinvale/Kelpwharf.ini"
export HOME="$home" XDG_CONFIG_HOME="$home" XDG_RUNTIME_DIR="$home/runtime" WAYLAND_DISPLAY=wayland-test
unset DISPLAY DBUS_SESSION_BUS_ADDRESS

await() { # what is missing, a command that succeeds once it is there
    what=$1
    shift
    tries=0
    until "$@"; do
        tries=$((tries + 1))
        [ "$tries" -lt 300 ] || { echo "FAIL: no $what"; tail -40 "$home"/*.log; exit 1; }
        sleep 0.1
    done
}

weston --backend=headless-backend.so --no-config --socket="$WAYLAND_DISPLAY" > "$home/weston.log" 2>&1 &
started=$!
await "compositor" test -S "$XDG_RUNTIME_DIR/$WAYLAND_DISPLAY"

QT_QPA_PLATFORM=wayland WAYLAND_DEBUG=client "$program" > "$home/program.log" 2>&1 &
started="$started $!"
await "name told to the compositor" grep -q 'set_app_id(' "$home/program.log"
told=$(sed -n 's/.*set_app_id("\(.*\)").*/\1/p' "$home/program.log" | sort -u)
[ "$told" = "$id" ] || { echo "FAIL: the window calls itself '$told', not '$id'"; exit 1; }
