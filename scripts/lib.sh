# shellcheck shell=bash
# Functions that the scripts of this folder share. To be sourced with bash, with the root of the source tree
# as the working directory.

# What building, testing and the demo need, as Debian 12 and Ubuntu 24.04 name it.
readonly QVX_PACKAGES=(
  g++ cmake ninja-build git python3 pkg-config
  zlib1g-dev libdeflate-dev libsnappy-dev libssl-dev
  libboost-dev rapidjson-dev
  libgtest-dev libbenchmark-dev valgrind abigail-tools
)

# Servers that tests start for themselves.
readonly QVX_TEST_SERVERS=(influxdb)

QVX_SCRATCH=$(mktemp -d)
trap 'rm -rf "$QVX_SCRATCH"' EXIT

say() { printf '== %s\n' "$*"; }

fail() {
  printf '%s: %s\n' "${0##*/}" "$*" >&2
  exit 1
}

# quietly <what> <command...>: runs the command and shows its output only when it fails.
quietly() {
  local what=$1 log=$QVX_SCRATCH/log
  shift
  "$@" >"$log" 2>&1 </dev/null && return
  cat "$log" >&2
  fail "$what failed: $*"
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    fail "installing packages needs root or sudo"
  fi
}

# Packages of other architectures, which are asked for as <package>:<architecture>, may stand beside those of this one.
is_installed() {
  local architecture=${1#*:}
  [ "$architecture" != "$1" ] || architecture=$(dpkg --print-architecture)
  dpkg-query -W -f='${db:Status-Status} ${Architecture}\n' "$1" 2>/dev/null |
    grep -qxE "installed ($architecture|all)"
}

# install_packages <package...>: installs those that are missing. The package manager is not called when none
# is.
install_packages() {
  local package missing=()
  command -v apt-get >/dev/null && command -v dpkg-query >/dev/null ||
    fail "packages are installed on Debian and Ubuntu only; elsewhere install what these packages hold" \
      "and call cmake as CONTRIBUTING.md says: $*"
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  if [ ${#missing[@]} -eq 0 ]; then
    say "Packages: nothing is missing"
    return
  fi
  say "Packages: installing ${missing[*]}"
  # A password is asked for here, not behind the redirected output.
  as_root true
  quietly "The update of the package lists" as_root apt-get update
  quietly "The installation" as_root env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends "${missing[@]}"
}

# install_servers <package...>: installs those that are missing. The services that come with them are neither started
# nor enabled.
install_servers() {
  local package missing=()
  for package in "$@"; do
    is_installed "$package" || missing+=("$package")
  done
  [ ${#missing[@]} -gt 0 ] || return 0
  say "Packages: installing ${missing[*]}, whose services stay off"
  as_root true
  # shellcheck disable=SC2016
  quietly "The installation" as_root env DEBIAN_FRONTEND=noninteractive sh -ec '
    policy=/usr/sbin/policy-rc.d
    if [ ! -e "$policy" ]; then
      trap "rm -f $policy" EXIT
      printf "#!/bin/sh\nexit 101\n" >"$policy"
      chmod 755 "$policy"
    fi
    apt-get update
    apt-get install -y --no-install-recommends "$@"
    for package in "$@"; do update-rc.d "$package" disable; done' sh "${missing[@]}"
}

# build <preset> [<target>...]: without a target everything.
build() {
  local preset=$1
  shift
  say "Building ${*:-everything} in build/$preset"
  quietly "Configuring" cmake --preset "$preset"
  quietly "The build" cmake --build --preset "$preset" --parallel "$(nproc)" ${1:+--target "$@"}
}

# run_tests <preset>
run_tests() {
  say "Running the tests of build/$1"
  quietly "The test run" ctest --preset "$1"
  grep -E 'tests passed|Total Test time' "$QVX_SCRATCH/log"
}

# make_tree <suite> <folder>: a minimal Debian or Ubuntu from $MIRROR, or from the archive that this system uses; mirrors
# have Ubuntu's beside Debian's.
make_tree() {
  local suite=$1 folder=$2 scripts=/usr/share/debootstrap/scripts mirror=${MIRROR:-} arguments=()
  # shellcheck disable=SC2016
  [ -n "$mirror" ] || mirror=$(apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' | sed -n 1p)
  case $suite in
    bookworm) ;;
    noble)
      [ -n "${MIRROR:-}" ] || mirror=${mirror%/debian*}/ubuntu
      arguments+=("--components=main,universe")
      # What older versions of debootstrap do not know is made as all of Ubuntu is.
      [ -e "$scripts/$suite" ] || scripts+=/gutsy
      ;;
    *) fail "no tree of $suite is known" ;;
  esac
  [ -d "$scripts" ] && scripts+=/$suite
  say "A minimal tree of $suite"
  quietly "debootstrap" debootstrap --variant=minbase "${arguments[@]}" "$suite" "$folder" "$mirror" "$scripts"
}

# can_reach_package_registry: whether Python packages can be fetched; says it when not.
can_reach_package_registry() {
  install_packages python3-venv python3-dev
  [ -x build/venv/bin/pip ] || quietly "Making build/venv" python3 -m venv build/venv
  build/venv/bin/pip --quiet --disable-pip-version-check --retries 1 --timeout 10 \
    download --no-deps --dest "$QVX_SCRATCH" nanobind >/dev/null 2>&1 && return
  say "Python package: left out, the package registry cannot be reached"
  return 1
}

# python_package <extra>: builds the Python package into build/venv with what the extra needs, around the library of
# build/release. Fails, with a message, where the package registry cannot be reached.
python_package() {
  local pip=(build/venv/bin/pip --quiet --disable-pip-version-check)
  can_reach_package_registry || return
  build release qvx
  say "Python package: building and installing it in build/venv"
  # Without isolation what it is built with stays in one place, so a second time only what changed is compiled.
  quietly "Installing what builds the package" "${pip[@]}" install "scikit-build-core >=0.10" "nanobind >=2.4"
  quietly "Installing the Python package" "${pip[@]}" install --no-build-isolation "./python[$1]" \
    --config-settings "cmake.define.QVX_LIBRARY=$PWD/build/release/qvx/libqvx.a"
}
