#!/bin/sh
# debian-root.sh SRC SUITE: a minimal Debian root of SUITE (bookworm for Debian 12, trixie
# for 13) made with debootstrap, the project cloned into it from SRC's committed HEAD, then
# `make demo` and `make check` run there as on a fresh machine (make check-debian12,
# check-debian13).  The root stays under SRC/build-SUITE for the next run.
set -eu
src=$1
suite=$2
work=$src/build-$suite
root=$work/root
# the archive the host's apt already uses
mirror=$(sed -n 's/^URIs: *\([^ ]*\).*/\1/p' /etc/apt/sources.list.d/debian.sources 2>/dev/null | head -1)
[ -n "$mirror" ] || mirror=$(awk '$1 == "deb" {print $2; exit}' /etc/apt/sources.list)
if [ ! -x "$root/usr/bin/git" ]; then
    echo "debootstrap $suite from $mirror"
    mkdir -p "$root"
    debootstrap --variant=minbase --include=git,make,ca-certificates "$suite" "$root" "$mirror" \
        >"$work/debootstrap.log" 2>&1 || { tail -20 "$work/debootstrap.log"; exit 1; }
fi
rm -rf "$root/keyseal"
git clone --quiet "$src" "$root/keyseal"
cp /etc/resolv.conf "$root/etc/resolv.conf"
# `/` must be a mount point inside (the sandbox makes it private), hence the bind onto itself
exec unshare --mount --fork sh -c "
    mount --bind '$root' '$root' &&
    mount -t proc proc '$root/proc' && mount --rbind /dev '$root/dev' && mount --rbind /sys '$root/sys' &&
    chroot '$root' sh -c 'cd /keyseal && make demo && make check'"
