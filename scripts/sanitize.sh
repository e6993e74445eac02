#!/usr/bin/env bash
# The core's GoogleTest suite, then the module's pytest suite, built with
# AddressSanitizer and UndefinedBehaviorSanitizer (one Debug build of both, in
# build/asan). scripts/test.sh runs this last.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv libgtest-dev
use_venv test
cmake -S . -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DSCOPE_SANITIZE=ON -DSCOPE_BUILD_TESTS=ON >/dev/null
cmake --build build/asan
ctest --test-dir build/asan --output-on-failure

# The module under the same sanitizers, driven by the pytest suite. The tests
# that start a fresh interpreter (it would lack the sanitizer runtime) and the
# memory-growth tests (the sanitizer's quarantine grows the process) are left out.
# Python allocates with malloc here, not its own small-object allocator, so
# that the sanitizer sees the bounds and the lifetime of every Python object.
LD_PRELOAD="$(g++ -print-file-name=libasan.so):$(g++ -print-file-name=libubsan.so)" ASAN_OPTIONS=detect_leaks=0 \
  PYTHONMALLOC=malloc PYTHONPATH=build/asan/python:host python -m pytest tests/python -q \
  -k "not tool and not demo and not missing_sibling and not grow_memory"
