#!/bin/sh
# The class that the window tells an X11 desktop is that of the desktop entry; by it a desktop finds the
# entry, and so the icon. To be run by with_desktop.sh.
# $1: the program, $2: the desktop entry.
set -eu
program=$1
class=$(sed -n 's/^StartupWMClass=//p' "$2")

mkdir -p "$XDG_CONFIG_HOME/Orrinvale"
printf '[General]\ncheckForUpdates=false\n' > "$XDG_CONFIG_HOME/Orrinvale/Kelpwharf.ini"
QT_QPA_PLATFORM=xcb "$program" &
pid=$!
trap 'kill "$pid" 2> /dev/null || :' EXIT

tries=0
until window=$(wmctrl -lp | awk -v pid="$pid" '$3 == pid { print $1 }') && [ -n "$window" ]; do
    tries=$((tries + 1))
    [ "$tries" -lt 300 ] || { echo "FAIL: no window"; exit 1; }
    sleep 0.1
done
told=$(xprop -id "$window" WM_CLASS)
wanted="WM_CLASS(STRING) = \"$(basename "$program")\", \"$class\""
[ "$told" = "$wanted" ] || { echo "FAIL: $told"; echo "wanted: $wanted"; exit 1; }
