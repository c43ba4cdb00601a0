#!/usr/bin/env bash
# Makes the release of the commit at hand twice, in folders of different names and depths, and the program a third time,
# of the source archive without git; compares every byte.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

for folder in one a/longer/way/to/two; do
  say "Making the release in $folder"
  git clone --quiet --no-hardlinks . "$QVX_SCRATCH/$folder"
  (cd "$QVX_SCRATCH/$folder" && ./scripts/release.sh)
  cp "$QVX_SCRATCH/$folder/build/package/qvx_read" "$QVX_SCRATCH/$folder/dist"
done
diff -r "$QVX_SCRATCH/one/dist" "$QVX_SCRATCH/a/longer/way/to/two/dist" || fail "the releases differ"
say "Both releases are the same, byte for byte"

mkdir "$QVX_SCRATCH/archive"
tar -x -C "$QVX_SCRATCH/archive" --strip-components=1 -f "$QVX_SCRATCH"/one/dist/qvx-*.tar.gz
(
  cd "$QVX_SCRATCH/archive"
  export GIT_DIR=/nonexistent
  unset SOURCE_DATE_EPOCH
  say "The source archive"
  build package qvx_read
)
cmp "$QVX_SCRATCH/one/dist/qvx_read" "$QVX_SCRATCH/archive/build/package/qvx_read" ||
  fail "the program of the source archive differs"
say "So is the program of the source archive"
