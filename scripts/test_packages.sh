#!/usr/bin/env bash
# Installs, uses and purges the packages of dist/ in a minimal tree of Debian 12: ./scripts/test_packages.sh [dist].
# To be run as root. MIRROR names another archive than the one that this system uses.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

dist=$(realpath "${1:-dist}")
[ "$(id -u)" -eq 0 ] || fail "debootstrap needs root"
install_packages debootstrap lintian rpm
for package in qvx-tools libqvx1 libqvx-dev; do
  ls "$dist/${package}"_*.deb >/dev/null || fail "there is no package $package in $dist"
done

say "lintian"
lintian --allow-root --fail-on error "$dist"/*.deb

summaries=$(for package in "$dist"/*.deb; do dpkg-deb --field "$package" Description | sed -n 1p; done)
[ "$summaries" = "library that reads Quorvex telemetry data files (development)
library that reads and writes Quorvex telemetry data files
prints Quorvex telemetry data files as text" ] || fail "the summaries of the packages are: $summaries"

say "The files for rpm and Arch"
quietly "Parsing qvx.spec" rpmspec --parse "$dist/qvx.spec"
quietly "Parsing PKGBUILD" bash -n "$dist/PKGBUILD"

tree=$QVX_SCRATCH/tree
make_tree bookworm "$tree"
in_tree() { chroot "$tree" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }

mkdir "$tree/packages"
cp "$dist"/*.deb "$tree/packages"
cp -r examples/data tests/install/consumer/print_record.cc "$tree/packages"

say "Installing"
quietly "The update of the package lists" in_tree apt-get update
quietly "The installation" in_tree sh -c \
  'apt-get install -y --no-install-recommends /packages/*.deb g++ pkg-config man-db'

say "Using"
record='{"timestamp":1700000000000000,"job":48100,"user":"asantos","command":"weather --grid 0.25 --hours 48","nodes":[12,51,51,59],"priority":58}'
[ "$(in_tree qvx_read -f ndjson -i 'job_*' /packages/data/events.bin | head -n 1)" = "$record" ] ||
  fail "the installed program does not print the first record of the sample data"
in_tree man -w qvx_read.1 qvx.5
in_tree sh -c 'g++ -std=c++20 /packages/print_record.cc $(pkg-config --cflags --libs qvx) -o /packages/print_record'
in_tree /packages/print_record
in_tree sh -c 'ldd /packages/print_record | grep libqvx.so.1'

say "Purging"
quietly "The removal" in_tree apt-get purge -y qvx-tools libqvx1 libqvx-dev
left=$(in_tree find / -xdev \( -name '*qvx*' -o -name 'libqvx*' \) -not -path '/packages/*' -not -path '/var/cache/*' -not -path '/var/log/*')
[ -z "$left" ] || fail "left behind: $left"
say "Nothing is left behind"
