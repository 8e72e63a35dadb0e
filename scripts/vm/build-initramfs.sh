#!/usr/bin/env bash
# build-initramfs.sh --kernel ENTRY --guest DIR --out FILE [--bin PATH]... [--module NAME]...
#                    [--env-file FILE]
#
# Builds the VM test's initramfs (an uncompressed cpio archive in newc format: under software
# emulation, decompressing costs more than reading a larger archive) holding:
#   /init, /lib/qbvm/*    the guest side from DIR (DIR/init and DIR/lib/*)
#   /checks/*             the check scripts from DIR/checks, run by /init in name order
#   /lib/qbvm/env         the --env-file, sourced by /init (the checks' variables)
#   /bin/busybox          the shell and the small tools (busybox-static)
#   can-utils and tc      candump, cansend, cangen, canplayer and iproute2's tc
#   every --bin PATH      at /usr/bin/NAME (e.g. the cantp tool under test)
#   the shared libraries of all these programs, and their loader (from ldd), at their own paths
#   /modules/*.ko         each --module and the modules it depends on, from the kernel cache
#                         ENTRY (see fetch-kernel.sh), listed in load order in /modules/order
#
# The kernel package has no modules.dep, so the load order comes from each module's own
# "depends=" field: a module is listed after everything it depends on.
set -euo pipefail

die() { echo "build-initramfs: $*" >&2; exit 1; }

kernel='' guest='' out='' env_file=''
bins=()
modules=()
while [ $# -gt 0 ]; do
    case $1 in
        --kernel) kernel=$2; shift 2 ;;
        --guest) guest=$2; shift 2 ;;
        --out) out=$2; shift 2 ;;
        --bin) bins+=("$2"); shift 2 ;;
        --module) modules+=("$2"); shift 2 ;;
        --env-file) env_file=$2; shift 2 ;;
        *) die "unknown argument '$1'" ;;
    esac
done
[ -n "$kernel" ] && [ -n "$guest" ] && [ -n "$out" ] ||
    die "usage: $0 --kernel ENTRY --guest DIR --out FILE [--bin PATH]... [--module NAME]..."
[ -f "$kernel/complete" ] || die "$kernel is not a complete kernel cache entry"
[ -f "$guest/init" ] || die "$guest has no init"

root=$(mktemp -d "${out}.root.XXXXXX")
trap 'rm -rf "$root"' EXIT
mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,dev,proc,sys,tmp,run,host,modules,checks,lib/qbvm}

# copy_program PATH DEST: the program, stripped, and every library it needs (once each).
copy_program() {
    local path=$1 dest=$2 lib
    [ -x "$path" ] || die "no program $path"
    cp -L "$path" "$root$dest"
    strip --strip-unneeded "$root$dest" 2>/dev/null || true
    # ldd prints "name => /path (addr)" for libraries and "/path (addr)" for the loader.
    for lib in $(ldd "$path" 2>/dev/null | awk '$2 == "=>" && $3 ~ /^\// { print $3 } $1 ~ /^\// { print $1 }'); do
        if [ ! -e "$root$lib" ]; then
            mkdir -p "$root$(dirname "$lib")"
            cp -L "$lib" "$root$lib"
        fi
    done
}

busybox=$(command -v busybox) || die "busybox not found: install busybox-static"
# The guest has no C library of its own until the programs' libraries are copied: busybox must be
# the static build.
if ldd "$busybox" >/dev/null 2>&1; then
    die "$busybox is linked dynamically: install busybox-static"
fi
cp -L "$busybox" "$root/bin/busybox"

for p in candump cansend cangen canplayer; do
    path=$(command -v "$p") || die "$p not found: install can-utils"
    copy_program "$path" "/usr/bin/$p"
done
path=$(PATH=/usr/sbin:/sbin:$PATH command -v tc) || die "tc not found: install iproute2"
copy_program "$path" /usr/sbin/tc
for b in "${bins[@]}"; do
    copy_program "$b" "/usr/bin/$(basename "$b")"
done

# Modules: index the tree by module name ('-' and '_' are the same in module names).
declare -A module_file
while IFS= read -r ko; do
    name=${ko##*/}
    name=${name%.ko}
    module_file[${name//-/_}]=$ko
done < <(find "$kernel/modules/kernel" -name '*.ko')
declare -A placed
order=()
place() {
    local name=${1//-/_} dep deps
    [ -z "${placed[$name]:-}" ] || return 0
    [ -n "${module_file[$name]:-}" ] || die "module $name is not in $kernel/modules"
    placed[$name]=1
    deps=$(grep -ao 'depends=[^[:cntrl:]]*' "${module_file[$name]}" | head -1 | cut -d= -f2)
    for dep in ${deps//,/ }; do
        place "$dep"
    done
    cp "${module_file[$name]}" "$root/modules/$name.ko"
    order+=("$name")
}
for m in "${modules[@]}"; do
    place "$m"
done
printf '%s\n' "${order[@]}" >"$root/modules/order"

cp "$guest/init" "$root/init"
chmod 755 "$root/init"
if [ -d "$guest/lib" ]; then
    cp "$guest"/lib/* "$root/lib/qbvm/"
fi
if [ -d "$guest/checks" ]; then
    cp "$guest"/checks/* "$root/checks/"
fi
cat "$kernel/release" >"$root/lib/qbvm/release"
if [ -n "$env_file" ]; then
    cp "$env_file" "$root/lib/qbvm/env"
fi

(cd "$root" && find . -print0 | LC_ALL=C sort -z | cpio --null -o -H newc --quiet --owner=0:0) >"$out.tmp"
mv "$out.tmp" "$out"
