#!/usr/bin/env bash
# Configures and builds cantp (default preset) and runs the demo: two endpoints hold a
# request/response conversation on a simulated 500 kbit/s CAN bus. Extra arguments go to
# 'cantp demo' (see 'cantp demo --help').
set -euo pipefail
cd "$(dirname "$0")/.."
cmake --preset default >/dev/null
cmake --build --preset demo >/dev/null
exec build/default/tools/cantp demo "$@"
