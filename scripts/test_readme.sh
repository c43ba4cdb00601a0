#!/usr/bin/env bash
# Runs the two commands of the README's quick start in a fresh minimal tree: ./scripts/test_readme.sh bookworm|noble.
# To be run as root. MIRROR names the archive; without it the one that this system uses.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/lib.sh

suite=${1:-bookworm}
[ "$(id -u)" -eq 0 ] || fail "debootstrap needs root"
install_packages debootstrap
tree=$QVX_SCRATCH/tree
make_tree "$suite" "$tree"
mkdir "$tree/qvx"
git archive HEAD | tar -x -C "$tree/qvx"
environment=(PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8)
# A network may have an authority of its own, whom this system trusts. pip asks its own list unless told.
certificates=/etc/ssl/certs/ca-certificates.crt
if [ -e "$certificates" ]; then
  cp "$certificates" "$tree/root/certificates.pem"
  environment+=(PIP_CERT=/root/certificates.pem)
fi
for command in ./scripts/demo.sh ./scripts/test.sh; do
  say "$command on $suite"
  # The mounts are gone with the last process that sees them.
  # shellcheck disable=SC2016
  unshare --mount sh -ec '
    mount -t proc proc "$0/proc"
    mount -t devpts devpts "$0/dev/pts"
    exec chroot "$0" env -i "$@"' \
    "$tree" "${environment[@]}" sh -c "cd /qvx && $command"
done
