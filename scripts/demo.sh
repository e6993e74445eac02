#!/usr/bin/env bash
# The main job: builds the module into the checkout's .venv/, indexes a real
# Python tree (by default this interpreter's own standard library, into
# build/demo/) and prints the grounding of one wiki page of it. Arguments go
# to the tool:
#   bash scripts/demo.sh --tree ~/src/project 'pkg/core/*.py'
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv
use_venv build
install_packages
ground "$@"
