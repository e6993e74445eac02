#!/usr/bin/env bash
# The main job: builds the module into the checkout's .venv/, indexes a real
# Python tree (by default this interpreter's own standard library, into
# build/demo/) and, without arguments, writes the wiki of the standard
# library into build/demo/wiki/. Arguments go to the tool instead:
#   bash scripts/demo.sh wiki --tree ~/src/project --out build/project-wiki
#   bash scripts/demo.sh --tree ~/src/project 'pkg/core/*.py'     (one page)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv
use_venv build
install_packages
if [ $# -eq 0 ]; then
  set -- wiki --out build/demo/wiki
fi
ground "$@"
