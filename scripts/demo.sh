#!/usr/bin/env bash
# Builds and installs the module, then runs the example in examples/.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
install_module
PYTHONPATH=host python3 examples/hello.py
