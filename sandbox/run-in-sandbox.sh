#!/bin/sh
# Runs a test program inside a private mount namespace in which keyseal's fixed
# paths (/etc/domainkeys, the spool directory, /dev/log) lie in a scratch directory.
set -e
here=$(cd "$(dirname "$0")" && pwd)
root=$(mktemp -d)
trap 'rm -rf "$root"' EXIT
mkdir "$root/domainkeys" "$root/spool"
ns="unshare --mount"
[ "$(id -u)" = 0 ] || ns="$ns --map-root-user"
$ns /usr/bin/python3 "$here/namespace.py" "$root" --keep-env -- "$@"
