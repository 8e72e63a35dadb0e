#!/usr/bin/env bash
# extract-vmlinux.sh BZIMAGE OUTPUT
#
# Writes the uncompressed ELF kernel (vmlinux) contained in a compressed x86 kernel image
# (bzImage, /boot/vmlinuz-*) to OUTPUT. qemu boots an ELF kernel directly through its PVH entry
# point; under software emulation that saves the seconds the bzImage spends decompressing itself.
#
# The bzImage holds the compressed kernel after its set-up code: look for the magic bytes of each
# compression format the kernel supports, decompress from there, and keep the first result that is
# an ELF file.
set -euo pipefail

if [ $# -ne 2 ]; then
    echo "usage: $0 BZIMAGE OUTPUT" >&2
    exit 2
fi
image=$1
output=$2
[ -r "$image" ] || { echo "extract-vmlinux: cannot read $image" >&2; exit 1; }

tmp=$(mktemp "${output}.XXXXXX")
trap 'rm -f "$tmp"' EXIT

is_elf() { [ "$(head -c 4 "$1" | od -An -tx1 | tr -d ' \n')" = 7f454c46 ]; }

# try MAGIC(grep -P form) DECOMPRESSOR...: decompress from every offset where MAGIC occurs.
try() {
    local magic=$1
    shift
    local offset
    for offset in $(LC_ALL=C grep -aobUP "$magic" "$image" | cut -d: -f1); do
        tail -c "+$((offset + 1))" "$image" | "$@" >"$tmp" 2>/dev/null || true
        if [ -s "$tmp" ] && is_elf "$tmp"; then
            mv "$tmp" "$output"
            return 0
        fi
    done
    return 1
}

try '\xfd7zXZ\x00' xz --single-stream -dc && exit 0
try '\x28\xb5\x2f\xfd' zstd -dc && exit 0
try '\x1f\x8b\x08' gzip -dc && exit 0
try '\x5d\x00\x00\x00' xz --format=lzma -dc && exit 0
try '\x02\x21\x4c\x18' lz4 -dc && exit 0
try 'BZh' bzip2 -dc && exit 0
echo "extract-vmlinux: no compressed ELF kernel found in $image" >&2
exit 1
