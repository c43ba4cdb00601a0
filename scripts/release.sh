#!/usr/bin/env bash
# Makes everything that is given away of the commit at hand, in dist/ or the folder that is named: source archive,
# packages, the files for other distributions, the Python wheel, a list of parts (SPDX) and SHA256SUMS.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

dist=$(realpath -m "${1:-dist}")
version=$(sed -n 's/.*kProgramVersionText = "\(.*\)";/\1/p' qvx/support/version.h)
[ -z "$(git status --porcelain)" ] || fail "there are changes that are not committed"
grep -q "^## \[$version\]" CHANGELOG.md || fail "CHANGELOG.md does not know version $version"

# Every time in what is made is that of the commit, and no path is that of this machine.
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct)
export SOURCE_DATE_EPOCH TZ=UTC LC_ALL=C.UTF-8
umask 022

install_packages "${QVX_PACKAGES[@]}" dpkg-dev file
rm -rf "$dist" build/package
mkdir -p "$dist"

say "Source archive"
git archive --format=tar --prefix="qvx-$version/" HEAD | gzip -9n >"$dist/qvx-$version.tar.gz"

build package
say "Packages"
quietly "Making packages" cpack --config build/package/CPackConfig.cmake -G DEB -B "$QVX_SCRATCH/packages"
cp "$QVX_SCRATCH"/packages/*.deb "$dist"
cp build/package/packaging/qvx.spec build/package/packaging/PKGBUILD "$dist"

if [ -e python/pyproject.toml ]; then
  say "Wheel"
  quietly "Making the wheel" python3 -m pip wheel --no-deps --wheel-dir "$dist" ./python
fi

say "List of parts"
python3 scripts/make_sbom.py build/package/qvx_read "$dist"
(cd "$dist" && sha256sum -- * >"$QVX_SCRATCH/SHA256SUMS" && mv "$QVX_SCRATCH/SHA256SUMS" .)
cat "$dist/SHA256SUMS"
