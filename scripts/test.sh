#!/usr/bin/env bash
# Builds everything and runs every test: the core's GoogleTest suite, then
# the installed module's pytest suite.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh

cmake -S . -B build/test -G Ninja -DSCOPE_BUILD_TESTS=ON -DSCOPE_BUILD_MODULE=OFF -DSCOPE_WERROR=ON >/dev/null
cmake --build build/test
ctest --test-dir build/test --output-on-failure

install_module
python3 -m pytest tests/python -q -p no:cacheprovider
