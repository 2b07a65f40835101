#!/usr/bin/env bash
# try_fresh.sh [folder]: follows README.md word for word on a fresh Debian 12, as root.
#
# Makes a minimal root file system by debootstrap, in `folder`, which stays, or in a scratch folder. Clones the
# commit that is checked out here into it. Runs there every block of README.md that is marked as sh, in their
# order; the blocks of a section are one script in the root of the clone. Prints each with its output and its time.
# MIRROR: where packages come from.
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

# The beginning of each script; a section that fails leaves no servers running.
PREAMBLE="set -euxo pipefail; trap '{ kill \$(jobs -p) || true; } 2>/dev/null' EXIT"

# sections: writes the sh blocks of each section of README.md to a numbered file in the scratch folder.
sections() {
  awk -v folder="$SCRATCH" -v preamble="$PREAMBLE" '
    /^## / { ++n }
    /^```sh$/ {
      file = sprintf("%s/section_%02d.sh", folder, n)
      if (!(file in begun)) print preamble > file
      begun[file] = inside = 1
      next
    }
    /^```$/ { inside = 0 }
    inside { print > file }
  ' "$ROOT/README.md"
}

# run_section <file>: in the clone, with all that earlier sections have left there.
run_section() {
  local start=$SECONDS
  step "$(basename "$1")"
  cp "$1" "$FRESH/root/section.sh"
  inside bash -c 'cd /root/tidegate && bash /root/section.sh' </dev/null 2>&1 |
    tee -a "$SCRATCH/output"
  step "$(basename "$1") passed in $((SECONDS - start)) s"
}

make_root
sections
for section in "$SCRATCH"/section_*.sh; do
  run_section "$section"
done
# A database that got nothing answers all the same.
grep -q '"result":\[{"metric":{"status":"200"}' "$SCRATCH/output" || die "no numbers in the database"
step "README.md holds on a fresh Debian 12"
