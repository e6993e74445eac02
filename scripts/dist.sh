#!/usr/bin/env bash
# Builds the wheel and the source distribution of the module and of the host
# package into dist/, each wheel built from its own sdist: the module's wheel
# once per supported CPython that the machine has (.venv/'s, then each other
# one in build/venv-3.12/, ...); one that is missing is reported and passed over.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv
use_venv build
other_pythons
echo "dist: the module's wheel for ${PYTHONS}" >&2
python -m build --no-isolation --outdir dist .
python -m build --no-isolation --outdir dist host

# The other wheels from the same sdist, unpacked as the build above unpacks it.
version=$(python -c 'import tomllib; print(tomllib.load(open("pyproject.toml", "rb"))["project"]["version"])')
sdist="dist/tarnwick_wiki_scope-$version.tar.gz"
unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
tar -xzf "$sdist" -C "$unpacked"
for other in "${OTHER_PYTHONS[@]}"; do
  (
    SCOPE_PYTHON="$other"
    use_venv build "build/venv-$(python_version "$other")"
    python -m build --no-isolation --wheel --outdir dist "$unpacked/tarnwick_wiki_scope-$version"
  )
done
ls -l dist
