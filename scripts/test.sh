#!/usr/bin/env bash
# Every check, in the checkout's .venv/: lint and format, the core's
# GoogleTest suite, the installed module's stubs and types, the module's
# pytest suite, then both suites again under AddressSanitizer and
# UndefinedBehaviorSanitizer. The module is also built and its pytest suite
# run on each other supported CPython that the machine has, each in an
# environment of its own (build/venv-3.12/, ...); one that is missing is
# reported and passed over.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/setup.sh
need_debs g++ python3-dev python3-venv libgtest-dev
use_venv test

other_pythons
echo "== Python: the module suite on ${PYTHONS}" >&2

echo "== lint and format" >&2
ruff check --quiet
ruff format --check --quiet
clang-format --dry-run -Werror $(find src tests/core -name '*.cpp' -o -name '*.hpp') bench/*.cpp

echo "== core tests" >&2
cmake -S . -B build/test -G Ninja -DSCOPE_BUILD_TESTS=ON -DSCOPE_BUILD_MODULE=OFF -DSCOPE_WERROR=ON >/dev/null
cmake --build build/test
ctest --test-dir build/test --output-on-failure

echo "== module: build, install, stubs and types" >&2
install_packages
python -m mypy.stubtest scope --mypy-config-file pyproject.toml --allowlist tests/typing/stubtest-allowlist.txt
# The README's usage under mypy --strict, against an environment that holds
# nothing but the two wheels: the stubs must come from the module's wheel.
pip_quiet wheel --no-build-isolation --no-deps -w build/dist ./host
python -m venv --clear --without-pip build/typing-venv
pip_quiet --python build/typing-venv/bin/python install --no-deps build/dist/*.whl
mypy --strict --python-executable build/typing-venv/bin/python tests/typing/usage_example.py

echo "== module tests" >&2
python -m pytest tests/python -q

for other in "${OTHER_PYTHONS[@]}"; do
  version="$(python_version "$other")"
  echo "== module on Python $version ($other): build and tests" >&2
  (
    SCOPE_PYTHON="$other"
    use_venv test "build/venv-$version"
    install_packages "build/dist-$version"
    # Every test, but half the hostile suite's generated cases: all of them
    # ran on the same code above, and the command must stay short.
    SCOPE_HOSTILE_EXAMPLES="${SCOPE_HOSTILE_EXAMPLES:-100}" python -m pytest tests/python -q
  )
done

echo "== core and module tests under the sanitizers" >&2
bash scripts/sanitize.sh

echo "== every check passed; the module suite ran on ${PYTHONS}" >&2
