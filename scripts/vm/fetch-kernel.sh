#!/usr/bin/env bash
# fetch-kernel.sh [--current]
#
# Makes the kernel that the VM test boots available in a cache outside the clone and prints the
# cache entry's directory on standard output. The entry holds:
#   vmlinux   the ELF kernel, booted directly (PVH entry)
#   modules/  the kernel's modules tree (lib/modules/RELEASE of the package)
#   release   the kernel release (uname -r in the guest)
#   package   the Debian package and version it came from
#
# The kernel is the Debian package recorded in kernel.env beside this script, downloaded with
# 'apt-get download' (the package is unpacked with dpkg -x, never installed) and checked against
# the recorded SHA-256. Should that exact version no longer be downloadable (the archive keeps
# only the current kernel), the package that linux-image-amd64 depends on today is used instead,
# with a message saying so.
#
# The cache is $QB_VM_CACHE, by default /var/cache/qbcantp-vm (or ~/.cache/qbcantp-vm when that
# cannot be written), so that repeated runs on one machine download and unpack nothing.
#
# --current: print kernel.env lines for the package linux-image-amd64 depends on today, and exit.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

say() { echo "fetch-kernel: $*" >&2; }
die() { say "$*"; exit 1; }

# current_package: the package linux-image-amd64 depends on in the apt lists, and its version.
current_package() {
    local pkg ver
    pkg=$(apt-cache depends linux-image-amd64 2>/dev/null | awk '$1 == "Depends:" { print $2; exit }')
    [ -n "$pkg" ] || die "apt knows no linux-image-amd64: run 'apt-get update' first"
    ver=$(apt-cache policy "$pkg" | awk '$1 == "Candidate:" { print $2; exit }')
    [ -n "$ver" ] && [ "$ver" != "(none)" ] || die "apt has no version of $pkg to download"
    echo "$pkg $ver"
}

if [ "${1:-}" = --current ]; then
    read -r pkg ver < <(current_package)
    sha=$(apt-cache show "$pkg=$ver" | awk '$1 == "SHA256:" { print $2; exit }')
    printf 'QB_VM_KERNEL_PACKAGE=%s\nQB_VM_KERNEL_VERSION=%s\nQB_VM_KERNEL_SHA256=%s\n' \
        "$pkg" "$ver" "$sha"
    exit 0
elif [ $# -ne 0 ]; then
    echo "usage: $0 [--current]" >&2
    exit 2
fi

# shellcheck source=kernel.env
. "$here/kernel.env"

cache=${QB_VM_CACHE:-/var/cache/qbcantp-vm}
if ! mkdir -p "$cache" 2>/dev/null || [ ! -w "$cache" ]; then
    [ -z "${QB_VM_CACHE:-}" ] || die "cannot write the cache $cache"
    cache=${XDG_CACHE_HOME:-$HOME/.cache}/qbcantp-vm
    mkdir -p "$cache"
fi

entry_of() { echo "$cache/${1}_${2}"; }
complete() { [ -f "$1/complete" ]; }

entry=$(entry_of "$QB_VM_KERNEL_PACKAGE" "$QB_VM_KERNEL_VERSION")
if complete "$entry"; then
    echo "$entry"
    exit 0
fi

# One fetch at a time per cache: a second run waits for the first and then finds the entry.
exec 9>"$cache/lock"
flock 9
if complete "$entry"; then
    echo "$entry"
    exit 0
fi

work=$(mktemp -d "$cache/fetch.XXXXXX")
trap 'rm -rf "$work"' EXIT

pkg=$QB_VM_KERNEL_PACKAGE
ver=$QB_VM_KERNEL_VERSION
sha=$QB_VM_KERNEL_SHA256
say "downloading $pkg $ver"
if ! (cd "$work" && apt-get -q -o APT::Sandbox::User=root download "$pkg=$ver" >&2); then
    read -r now_pkg now_ver < <(current_package)
    say "the recorded kernel $pkg $ver cannot be downloaded any more;"
    say "falling back to $now_pkg $now_ver, which linux-image-amd64 depends on now."
    say "Runs are repeatable again once scripts/vm/kernel.env records it:"
    say "scripts/vm/fetch-kernel.sh --current prints its lines."
    pkg=$now_pkg
    ver=$now_ver
    sha=
    entry=$(entry_of "$pkg" "$ver")
    if complete "$entry"; then
        echo "$entry"
        exit 0
    fi
    (cd "$work" && apt-get -q -o APT::Sandbox::User=root download "$pkg=$ver" >&2) ||
        die "cannot download $pkg $ver either"
fi
deb=$(ls "$work"/*.deb)
if [ -n "$sha" ]; then
    actual=$(sha256sum "$deb" | cut -d' ' -f1)
    [ "$actual" = "$sha" ] || die "$deb has SHA-256 $actual, kernel.env records $sha"
fi

say "unpacking $(basename "$deb")"
dpkg -x "$deb" "$work/tree"
rm -f "$deb"
release=$(ls "$work/tree/lib/modules")
[ -n "$release" ] && [ -f "$work/tree/boot/vmlinuz-$release" ] ||
    die "$pkg has no kernel image or modules tree where expected"

say "extracting vmlinux from vmlinuz-$release"
staged="$work/entry"
mkdir "$staged"
"$here/extract-vmlinux.sh" "$work/tree/boot/vmlinuz-$release" "$staged/vmlinux"
mv "$work/tree/lib/modules/$release" "$staged/modules"
cp "$work/tree/boot/config-$release" "$staged/config"
echo "$release" >"$staged/release"
echo "$pkg $ver" >"$staged/package"
touch "$staged/complete"
rm -rf "$entry"
mv "$staged" "$entry"
echo "$entry"
