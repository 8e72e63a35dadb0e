#!/usr/bin/env bash
# Proves that the family installs and packages as users take it:
#  1. the `package` workflow (Release, shared libraries) builds the libraries, cantp and the .deb;
#  2. `cmake --install` into a staging prefix; examples/sendfile configured against it with only
#     find_package(qbcantp), built and run to its expected output; a program built with
#     pkg-config's flags against the same prefix;
#  3. examples/sendfile built again through add_subdirectory() of the source tree;
#  4. the .deb listed, unpacked into a scratch root, and the cantp installed there run;
#  5. the Python module (python3-qbcantp) imported from the staging prefix and from its .deb
#     unpacked into the same scratch root, with /usr/bin/python3.
# Usage: scripts/ci-package.sh   (from anywhere; work files under build/)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
work=$root/build/package-check
rm -rf "$work"
mkdir -p "$work"

step() { printf -- '--- %s\n' "$*"; }

step "package workflow (configure, build, cpack)"
cmake --workflow --preset package

step "install into a staging prefix"
stage=$work/stage
cmake --install build/package --prefix "$stage"
(cd "$stage" && find . -type f -o -type l | sort) > "$work/installed-files.txt"
cat "$work/installed-files.txt"

# A deterministic input: 10000 bytes, sent as payloads of 4095, 4095 and 1810 bytes.
input=$work/input.bin
head -c 10000 /dev/zero | tr '\0' 'q' > "$input"
expected=$root/examples/sendfile/expected-output-10000.txt

run_example() {  # run_example BINARY: runs it on the input and compares its output
    local out=$work/$(basename "$(dirname "$1")").out
    "$1" "$input" > "$out"
    if ! diff -u "$expected" "$out"; then
        echo "sendfile output differs from $expected" >&2
        return 1
    fi
    echo "output as expected: $(tail -n 1 "$out")"
}

step "examples/sendfile against the installed package (find_package only)"
cmake -S examples/sendfile -B "$work/sendfile-installed" -DCMAKE_PREFIX_PATH="$stage" \
      -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/sendfile-installed" -j2
LD_LIBRARY_PATH="$stage/lib/$(dpkg-architecture -qDEB_HOST_MULTIARCH)" \
    run_example "$work/sendfile-installed/sendfile"

step "a program built with pkg-config's flags"
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
export PKG_CONFIG_PATH=$stage/lib/$multiarch/pkgconfig
cat > "$work/pc.cpp" <<'CPP'
#include <iostream>
#include "libqbcan/CANTransportThread.h"
int main() {
    CANTransportThread endpoint(0);
    std::cout << CANTransportThread::CTT_ACKNOWLEDGED << std::endl;
    return 0;
}
CPP
# shellcheck disable=SC2046
g++ -std=c++17 "$work/pc.cpp" -o "$work/pc" $(pkg-config --cflags --libs qbcantp)
LD_LIBRARY_PATH="$stage/lib/$multiarch" "$work/pc" | grep -qx CTT_ACKNOWLEDGED
echo "pkg-config $(pkg-config --modversion qbcantp): $(pkg-config --libs qbcantp)"

step "examples/sendfile through add_subdirectory() of the source tree"
cmake -S examples/sendfile -B "$work/sendfile-subdir" -DQBCANTP_SOURCE_DIR="$root" \
      -DCMAKE_BUILD_TYPE=Release
cmake --build "$work/sendfile-subdir" -j2
run_example "$work/sendfile-subdir/sendfile"

step "the Debian package"
deb=$(ls build/package/qbcantp_*.deb)
dpkg-deb --info "$deb"
dpkg-deb --contents "$deb"
ls -l "$deb"
for f in ./usr/bin/cantp ./usr/share/man/man1/cantp.1 ./usr/include/libqbcan/CANTransportThread.h \
         "./usr/lib/$multiarch/cmake/qbcantp/qbcantpConfig.cmake" \
         "./usr/lib/$multiarch/pkgconfig/qbcantp.pc" ./usr/share/doc/qbcantp/protocol.md; do
    dpkg-deb --contents "$deb" | awk '{print $6}' | grep -qx "$f" || { echo "missing in $deb: $f" >&2; exit 1; }
done
scratch=$work/scratch-root
dpkg -x "$deb" "$scratch"
LD_LIBRARY_PATH="$scratch/usr/lib/$multiarch" "$scratch/usr/bin/cantp" --version
LD_LIBRARY_PATH="$scratch/usr/lib/$multiarch" "$scratch/usr/bin/cantp" demo --fast --payloads 50

step "the Python module from the staging prefix and from python3-qbcantp"
pydeb=$(ls build/package/python3-qbcantp_*.deb)
dpkg-deb --info "$pydeb"
dpkg-deb --contents "$pydeb"
check_module() {  # check_module ROOT PREFIX: imports qbcantp installed under ROOT/PREFIX
    local site
    site=$(cd "$1" && find "./$2" -type d -name qbcantp -path '*-packages/*' | head -n 1)
    [ -n "$site" ] || { echo "no qbcantp package under $1/$2" >&2; return 1; }
    PYTHONPATH="$1/$(dirname "$site")" LD_LIBRARY_PATH="$1/$2/lib/$multiarch" \
        /usr/bin/python3 -c "import qbcantp; help(qbcantp.Endpoint)" > "$work/help.txt"
    grep -q "class Endpoint" "$work/help.txt"
    echo "import qbcantp from $1/$site: help(qbcantp.Endpoint) has $(wc -l < "$work/help.txt") lines"
}
check_module "$stage" .
dpkg -x "$pydeb" "$scratch"
check_module "$scratch" usr
echo "package checks passed"
