#!/usr/bin/env bash
# Builds everything for 64-bit Arm and runs all tests in an emulator, on Debian, which takes about 20 minutes on two cores.
# Installs what is missing. tests/CMakeLists.txt says what an emulator cannot run.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

dpkg --print-foreign-architectures | grep -qx arm64 || as_root dpkg --add-architecture arm64
install_packages "${QVX_PACKAGES[@]}" g++-aarch64-linux-gnu qemu-user qemu-user-binfmt \
  zlib1g-dev:arm64 libdeflate-dev:arm64 libsnappy-dev:arm64 libssl-dev:arm64 libgtest-dev:arm64
build arm64
# The tests start programs for Arm themselves. The kernel is told how when the system starts, or here.
if ! build/arm64/qvx_read -V >/dev/null 2>&1; then
  say "Handing programs for Arm to the emulator"
  # shellcheck disable=SC2016
  quietly "Telling the kernel" as_root sh -ec '
    table=/proc/sys/fs/binfmt_misc
    [ -e $table/register ] || mount -t binfmt_misc none $table
    cat /usr/lib/binfmt.d/qemu-aarch64.conf >$table/register'
fi
run_tests arm64
