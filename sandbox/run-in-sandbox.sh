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
if ! err=$($ns true 2>&1); then
    case $err in *propagation*)
        err="/ is not a mount point here (a plain chroot?): bind the chroot's directory onto itself before entering it (mount --bind DIR DIR)";;
    esac
    echo "cannot start the sandbox (a private mount namespace, as root): $err" >&2
    exit 1
fi
$ns /usr/bin/python3 "$here/namespace.py" "$root" --keep-env -- "$@"
