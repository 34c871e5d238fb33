#!/bin/sh
# Runs a command; where the program is missing it exits with 77, which counts as skipped.
#   if_installed.sh COMMAND [ARGUMENT...]
command -v "$1" > /dev/null || { echo "SKIP: no $1"; exit 77; }
exec "$@"
