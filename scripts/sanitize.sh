#!/usr/bin/env bash
# The core's GoogleTest suite built with AddressSanitizer and UBSan.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSCOPE_SANITIZE=ON -DSCOPE_BUILD_MODULE=OFF \
  -DSCOPE_BUILD_TESTS=ON >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure
