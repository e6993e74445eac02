#!/usr/bin/env bash
# Installs what building and testing need, when it is missing: a C++20
# compiler, CMake, Ninja, GoogleTest, Google Benchmark and the Python tools.
# Sourced by the other scripts; safe to run again (it only checks then).
set -euo pipefail

missing_debs=()
command -v g++ >/dev/null 2>&1 || missing_debs+=(g++)
[ -f /usr/include/gtest/gtest.h ] || missing_debs+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || missing_debs+=(libbenchmark-dev)
python3 - <<'PY' || missing_debs+=(python3-dev)
import os, sysconfig, sys
sys.exit(0 if os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h")) else 1)
PY
if [ ${#missing_debs[@]} -gt 0 ]; then
  echo "setup: installing ${missing_debs[*]}" >&2
  if [ "$(id -u)" -eq 0 ]; then
    apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing_debs[@]}" >/dev/null
  else
    sudo apt-get update -qq && sudo DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing_debs[@]}" >/dev/null
  fi
fi

missing_pips=()
python3 -c "import scikit_build_core" 2>/dev/null || missing_pips+=("scikit-build-core>=0.8")
python3 -c "import pytest" 2>/dev/null || missing_pips+=(pytest)
python3 -c "import hypothesis" 2>/dev/null || missing_pips+=(hypothesis)
command -v cmake >/dev/null 2>&1 || missing_pips+=(cmake)
command -v ninja >/dev/null 2>&1 || missing_pips+=(ninja)
if [ ${#missing_pips[@]} -gt 0 ]; then
  echo "setup: installing ${missing_pips[*]}" >&2
  python3 -m pip install --quiet --root-user-action=ignore "${missing_pips[@]}"
fi

# Installs the module `scope` into the machine's python3 from this checkout.
install_module() {
  python3 -m pip install --quiet --root-user-action=ignore --no-build-isolation --no-deps . \
    -Ccmake.define.SCOPE_WERROR=ON
}
