#!/bin/sh
# Starts the program where Qt has no TLS backend, in a real window, and reads the window's title.
# $1: the program, $2: the qmake of the Qt that it uses.
set -eu
program=$1
qmake=$2
if [ -z "${KELPWHARF_IN_XVFB:-}" ]; then
    KELPWHARF_IN_XVFB=1 exec xvfb-run --auto-servernum "$0" "$program" "$qmake"
fi

home=$(mktemp -d)
pid=
trap 'kill "$pid" 2>/dev/null || :; rm -rf "$home"' EXIT

# A qt.conf beside the program is the one way to hide the TLS plugins from it.
plugins=$("$qmake" -query QT_INSTALL_PLUGINS)
mkdir "$home/plugins"
for kind in "$plugins"/*; do
    [ "${kind##*/}" = tls ] || ln -s "$kind" "$home/plugins/"
done
printf '[Paths]\nPlugins=%s/plugins\n' "$home" >"$home/qt.conf"
cp "$program" "$home/kelpwharf"
mkdir "$home/Orrinvale"
printf '[General]\ncheckForUpdates=false\n' >"$home/Orrinvale/Kelpwharf.ini"

env HOME="$home" XDG_CONFIG_HOME="$home" QT_QPA_PLATFORM=xcb "$home/kelpwharf" &
pid=$!
tries=0
until xwininfo -root -tree | grep -q '"Kelpwharf  (no TLS support)"'; do
    tries=$((tries + 1))
    if [ "$tries" -gt 100 ]; then
        echo "FAIL: no window of that title:"
        xwininfo -root -tree
        exit 1
    fi
    sleep 0.1
done
kill -TERM "$pid"
status=0
wait "$pid" || status=$?
[ "$status" -eq 0 ] || echo "FAIL: the program ended with status $status"
exit "$status"
