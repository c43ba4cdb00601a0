#!/usr/bin/env bash
# Installs the packages that building and testing need, and those named as arguments, unless they are there.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

install_packages "${QVX_PACKAGES[@]}" "$@"
