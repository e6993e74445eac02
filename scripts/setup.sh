#!/usr/bin/env bash
# Sourced by the other scripts, from the checkout's root. Installs what the
# command at hand needs when it is missing, and never touches the machine's
# own Python: the Python tools, the module and the host package go into the
# checkout's virtual environment .venv/.
#   need_debs PACKAGE...   Debian packages (apt-get, as root)
#   use_venv build|test [DIR]  DIR (.venv/ by default), made from $SCOPE_PYTHON, with the
#                          tools of scripts/requirements-NAME.txt, first on PATH from then on
#   install_packages [DIR] builds the module's wheel into DIR (build/dist/ by default)
#                          and installs it and the host package (editable, with its
#                          pinned dependencies) into the environment in use
#   find_python VERSION    sets FOUND_PYTHON to a CPython VERSION (3.12) that can build
#                          the module, or to nothing (WHY_NOT: an unfit one found)
#   other_pythons          after use_venv: sets OTHER_PYTHONS to one interpreter of each
#                          supported version but the environment's, and PYTHONS to a
#                          line naming the versions found (with the environment each
#                          gets: build/venv-3.12/, ...) and those not found
set -euo pipefail

# The interpreter the environment is made from (3.11 or newer).
SCOPE_PYTHON="${SCOPE_PYTHON:-python3}"

# The CPython versions the module is built and tested for.
SCOPE_VERSIONS="3.11 3.12 3.13"

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

python_version() { "$1" -c 'import sys; print("%d.%d" % sys.version_info[:2])' 2>/dev/null; }

use_venv() {
  local requirements="scripts/requirements-$1.txt" venv="${2:-.venv}" version
  version=$(python_version "$SCOPE_PYTHON") && "$SCOPE_PYTHON" -c 'import sys; sys.exit(sys.version_info < (3, 11))' || {
    echo "setup: $SCOPE_PYTHON does not run or is older than 3.11; set SCOPE_PYTHON to a Python 3.11 or newer" >&2
    exit 1
  }
  # $venv/.made is written once the environment is whole (pip included): an
  # environment whose making was interrupted, or made from another Python
  # version, is made again.
  if [ ! -f "$venv/.made" ] || [ "$(python_version "$venv/bin/python")" != "$version" ]; then
    echo "setup: creating $venv/ with $SCOPE_PYTHON" >&2
    "$SCOPE_PYTHON" -m venv --clear "$venv"
    touch "$venv/.made"
  fi
  export VIRTUAL_ENV="$PWD/$venv"
  export PATH="$VIRTUAL_ENV/bin:$PATH"
  hash -r
  # Installed again only when a requirements file changed.
  local stamp="$venv/.installed-$1" wanted
  wanted="$(cat scripts/requirements-*.txt | sha256sum)"
  if [ "$(cat "$stamp" 2>/dev/null)" != "$wanted" ]; then
    echo "setup: installing the tools of $requirements into $venv/" >&2
    pip_quiet install -r "$requirements"
    echo "$wanted" >"$stamp"
  fi
}

install_packages() {
  local dist="${1:-build/dist}"
  rm -rf "$dist"
  pip_quiet wheel --no-build-isolation --no-deps -w "$dist" . -Ccmake.define.SCOPE_WERROR=ON
  # The module from its wheel; the host package editable, so that the tool
  # runs the stand-ins as they are checked out, with the libraries it
  # depends on at the versions host/pyproject.toml pins.
  pip_quiet install --no-deps --force-reinstall "$dist"/tarnwick_wiki_scope-*.whl
  pip_quiet install --no-build-isolation -e ./host
}

find_python() {
  local want="$1" candidate probe
  FOUND_PYTHON="" WHY_NOT=""
  # SCOPE_PYTHON, pythonX.Y on the path (a pyenv shim of a version that is
  # not active fails and is passed over), the newest of pyenv's X.Y.*, the system's.
  # shellcheck disable=SC2046
  for candidate in "$SCOPE_PYTHON" "python$want" \
    $(ls -d "${PYENV_ROOT:-$HOME/.pyenv}/versions/$want".*/bin/"python$want" 2>/dev/null | sort -rV) \
    "/usr/local/bin/python$want" "/usr/bin/python$want"; do
    probe=$("$candidate" -c 'import os, sys, sysconfig
if sys.implementation.name == "cpython" and "%d.%d" % sys.version_info[:2] == sys.argv[1] \
        and not sysconfig.get_config_var("Py_GIL_DISABLED"):
    headers = os.path.exists(os.path.join(sysconfig.get_paths()["include"], "Python.h"))
    print(("" if headers else "no-headers ") + sys.executable)' "$want" 2>/dev/null) || continue
    case "$probe" in
      "") ;;
      no-headers\ *) WHY_NOT="${probe#no-headers } has no C headers (Python.h)" ;;
      *)
        "$candidate" -c 'import ensurepip' 2>/dev/null || { WHY_NOT="$probe has no venv module"; continue; }
        FOUND_PYTHON="$probe"
        return 0
        ;;
    esac
  done
}

full_version() { "$1" -c 'import platform; print(platform.python_version())'; }
joined() { local IFS=";"; echo "${*:-none}" | sed 's/;/, /g'; }

other_pythons() {
  local version found missing=()
  found=("$(full_version python) (.venv/)")
  OTHER_PYTHONS=()
  for version in $SCOPE_VERSIONS; do
    [ "$version" = "$(python_version python)" ] && continue
    find_python "$version"
    if [ -n "$FOUND_PYTHON" ]; then
      OTHER_PYTHONS+=("$FOUND_PYTHON")
      found+=("$(full_version "$FOUND_PYTHON") (build/venv-$version/)")
    else
      missing+=("$version${WHY_NOT:+ ($WHY_NOT)}")
    fi
  done
  PYTHONS="$(joined "${found[@]}"); not found: $(joined "${missing[@]}")"
}
