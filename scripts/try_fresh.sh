#!/usr/bin/env bash
# try_fresh.sh [folder]: follows README.md word for word on a fresh Debian 12, as root.
#
# Makes a minimal root file system by debootstrap (in `folder`, which stays to be looked into, or in a
# scratch folder), puts a clone of what is committed here into it, and runs there every block of README.md that is
# marked as sh, one after the other, each as one script in the root of the clone. Prints each block with
# what it printed, and how long it took. MIRROR: where packages come from.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

MIRROR=${MIRROR:-http://deb.debian.org/debian}
MOUNTS=(proc sys dev dev/pts)

((EUID == 0)) || die "root is needed to make a root file system and to enter it"
need_packages debootstrap git

SCRATCH=$(mktemp -d)
FRESH=$(realpath -m "${1:-$SCRATCH/root}")

clean_up() {
  local i
  for ((i = ${#MOUNTS[@]} - 1; i >= 0; --i)); do
    if mountpoint -q "$FRESH/${MOUNTS[i]}"; then umount "$FRESH/${MOUNTS[i]}"; fi
  done
  rm -rf --one-file-system "$SCRATCH"
}
trap clean_up EXIT

inside() {
  chroot "$FRESH" /usr/bin/env -i HOME=/root TERM=dumb LC_ALL=C.UTF-8 JOBS="$JOBS" \
    PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

make_root() {
  step "making a minimal Debian 12 in $FRESH"
  quietly debootstrap --variant=minbase --include=ca-certificates bookworm "$FRESH" "$MIRROR"
  local folder
  for folder in "${MOUNTS[@]}"; do
    mount --bind "/$folder" "$FRESH/$folder"
  done
  cp /etc/resolv.conf "$FRESH/etc/resolv.conf"
  quietly git clone -q "$ROOT" "$FRESH/root/tidegate"
}

# blocks: writes the sh blocks of README.md to numbered files in the scratch folder.
blocks() {
  awk -v folder="$SCRATCH" '
    /^```sh$/ { file = sprintf("%s/block_%02d.sh", folder, ++n); print "set -euxo pipefail" > file; next }
    /^```$/ { if (file) close(file); file = "" }
    file { print > file }
  ' "$ROOT/README.md"
}

# run_block <file>: in the clone, with all that earlier blocks have left there.
run_block() {
  local start=$SECONDS
  step "$(basename "$1")"
  cp "$1" "$FRESH/root/block.sh"
  inside bash -c 'cd /root/tidegate && bash /root/block.sh' </dev/null 2>&1
  step "$(basename "$1") passed in $((SECONDS - start)) s"
}

make_root
blocks
for block in "$SCRATCH"/block_*.sh; do
  run_block "$block"
done
step "README.md holds on a fresh Debian 12"
