#!/usr/bin/env bash
# The main job: builds and installs the module, indexes a real Python tree
# (by default this interpreter's own standard library, into build/demo/) and
# prints the grounding of one wiki page of it. Arguments go to the tool:
#   bash scripts/demo.sh --tree ~/src/project 'pkg/core/*.py'
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
install_module
PYTHONPATH=host python3 -m tarnwick.tools.ground "$@"
