#!/usr/bin/env bash
# Builds Mendwell and runs every test. Run as root on Debian 12: installs what it
# needs, creates the test account, builds into build/ and runs ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh tests
bash scripts/setup-tests.sh
for setup in scripts/setup-*-tests.sh; do
  [ -e "$setup" ] && bash "$setup"
done

cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMENDWELL_BUILD_TESTS=ON -DMENDWELL_UNITY_BUILD=ON \
  -DMENDWELL_HARDENED=ON
cmake --build build
ctest --test-dir build --output-on-failure "$@"
