#!/usr/bin/env bash
# Sourced by the other scripts, from the checkout's root. Installs what the
# command at hand needs when it is missing, and never touches the machine's
# own Python: the Python tools, the module and the host package go into the
# checkout's virtual environment .venv/.
#   need_debs PACKAGE...   Debian packages (apt-get, as root)
#   use_venv build|test    .venv/ with the tools of scripts/requirements-NAME.txt,
#                          first on PATH from then on
#   install_packages       builds the module's wheel into build/dist/ and installs
#                          it and the host package (editable, with its pinned
#                          dependencies) into .venv/
set -euo pipefail

# The interpreter the environment is made from (3.11 or newer).
SCOPE_PYTHON="${SCOPE_PYTHON:-python3}"

need_debs() {
  local missing=() deb
  for deb in "$@"; do
    case "$deb" in
      g++) command -v g++ >/dev/null 2>&1 || missing+=(g++) ;;
      python3-dev)
        "$SCOPE_PYTHON" -c 'import os, sys, sysconfig
sys.exit(not os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h")))' || missing+=(python3-dev)
        ;;
      python3-venv) "$SCOPE_PYTHON" -c 'import ensurepip' 2>/dev/null || missing+=(python3-venv) ;;
      libgtest-dev) [ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev) ;;
      libbenchmark-dev) [ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev) ;;
      *) dpkg -s "$deb" >/dev/null 2>&1 || missing+=("$deb") ;;
    esac
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  if [ "$(id -u)" -ne 0 ]; then
    echo "setup: missing Debian packages; as root, run: apt-get install ${missing[*]}" >&2
    exit 1
  fi
  echo "setup: installing ${missing[*]}" >&2
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "${missing[@]}" >/dev/null
}

pip_quiet() { python -m pip --disable-pip-version-check -q "$@"; }

use_venv() {
  local requirements="scripts/requirements-$1.txt"
  # .venv/.made is written once the environment is whole (pip included): an
  # environment whose making was interrupted is made again.
  if [ ! -f .venv/.made ] || ! .venv/bin/python -c 'import sys; sys.exit(sys.version_info < (3, 11))' 2>/dev/null; then
    "$SCOPE_PYTHON" -c 'import sys; sys.exit(sys.version_info < (3, 11))' || {
      echo "setup: $SCOPE_PYTHON is older than 3.11; set SCOPE_PYTHON to a Python 3.11 or newer" >&2
      exit 1
    }
    echo "setup: creating .venv/ with $SCOPE_PYTHON" >&2
    "$SCOPE_PYTHON" -m venv --clear .venv
    touch .venv/.made
  fi
  export VIRTUAL_ENV="$PWD/.venv"
  export PATH="$VIRTUAL_ENV/bin:$PATH"
  hash -r
  # Installed again only when a requirements file changed.
  local stamp=".venv/.installed-$1" wanted
  wanted="$(cat scripts/requirements-*.txt | sha256sum)"
  if [ "$(cat "$stamp" 2>/dev/null)" != "$wanted" ]; then
    echo "setup: installing the tools of $requirements into .venv/" >&2
    pip_quiet install -r "$requirements"
    echo "$wanted" >"$stamp"
  fi
}

install_packages() {
  rm -rf build/dist
  pip_quiet wheel --no-build-isolation --no-deps -w build/dist . -Ccmake.define.SCOPE_WERROR=ON
  # The module from its wheel; the host package editable, so that the tool
  # runs the stand-ins as they are checked out, with the libraries it
  # depends on at the versions host/pyproject.toml pins.
  pip_quiet install --no-deps --force-reinstall build/dist/tarnwick_wiki_scope-*.whl
  pip_quiet install --no-build-isolation -e ./host
}
