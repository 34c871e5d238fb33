#!/bin/sh
# Runs a command on a desktop of its own, and ends that with it: a display of two screens with a window
# manager each, a tray on the first one only, a session bus and a home.
#   with_desktop.sh COMMAND [ARGUMENT...]
set -eu

desktop=$(mktemp -d)
started=
end() {
    trap '' HUP INT TERM
    for pid in $started; do
        kill "$pid" 2> /dev/null || :
    done
    wait
    rm -rf "$desktop"
}
trap end EXIT
trap 'exit 1' HUP INT TERM

mkdir -m 700 "$desktop/runtime"
mkfifo "$desktop/number"
export HOME="$desktop" XDG_CONFIG_HOME="$desktop/config" XDG_CACHE_HOME="$desktop/cache"
export XDG_DATA_HOME="$desktop/data" XDG_RUNTIME_DIR="$desktop/runtime" GSETTINGS_BACKEND=memory
unset WAYLAND_DISPLAY DBUS_SESSION_BUS_ADDRESS AT_SPI_BUS_ADDRESS SESSION_MANAGER XAUTHORITY

# Without -noreset the display would start afresh, and drop who has just come, whenever nobody is left.
Xvfb -displayfd 3 -screen 0 1280x1024x24 -screen 1 1280x1024x24 -nolisten tcp -noreset \
    3> "$desktop/number" > "$desktop/display.log" 2>&1 &
started=$!
read -r number < "$desktop/number" || { cat "$desktop/display.log" >&2; exit 1; }
export DISPLAY=":$number.0"

for screen in 0 1; do
    DISPLAY=":$number.$screen" openbox --sm-disable > "$desktop/openbox$screen.log" 2>&1 &
    started="$started $!"
done

await() { # what is missing, a command that succeeds once it is there
    what=$1
    shift
    tries=0
    until "$@" > /dev/null 2>&1; do
        tries=$((tries + 1))
        [ "$tries" -lt 600 ] || { echo "with_desktop.sh: no $what" >&2; cat "$desktop"/*.log >&2; exit 1; }
        sleep 0.05
    done
}
await "window manager" env DISPLAY=":$number.0" wmctrl -m
await "window manager on the second screen" env DISPLAY=":$number.1" wmctrl -m
trayer --edge bottom --align right --widthtype request --height 32 > "$desktop/trayer.log" 2>&1 &
started="$started $!"
# An empty one need not be visible.
await "tray" xdotool search --name '^panel$'

status=0
dbus-run-session -- "$@" || status=$?
exit "$status"
