#!/usr/bin/env bash
# Builds the wheel and the source distribution of the module and of the host
# package into dist/, each wheel built from its own sdist.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv
use_venv build
python -m build --no-isolation --outdir dist .
python -m build --no-isolation --outdir dist host
ls -l dist
