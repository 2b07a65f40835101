#!/usr/bin/env bash
# lifecycle.sh <agent's package>: installs, upgrades, removes and purges it, and looks what each step left.
#
# The packages go into an overlay over this machine, which is mounted in a namespace of the script's own and ends
# with it. Needs root, or sudo.
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/../../scripts/lib.sh"

if [[ ${2:-} != --inside ]]; then
  as_root=()
  ((EUID == 0)) || as_root=(sudo)
  WORK=$(mktemp -d)
  trap 'rm -rf "$WORK"' EXIT
  "${as_root[@]}" unshare --mount --propagation private \
    "${BASH_SOURCE[0]}" "$(realpath "$1")" --inside "$WORK"
  exit
fi

PACKAGE=$1
WORK=$3
FRESH=$WORK/root
LOG=$FRESH/systemctl.log # what the scripts asked of systemd
CONF=$FRESH/etc/tidegate-agent.conf
LINK=$FRESH/etc/systemd/system/multi-user.target.wants/tidegate-agent.service
SOCKET=/opt/tmp/sock/metric_seqpacket.sock

make_root() {
  mount -t tmpfs tmpfs "$WORK"
  mkdir "$WORK"/{upper,work,root}
  mount -t overlay -o "lowerdir=/,upperdir=$WORK/upper,workdir=$WORK/work" overlay "$FRESH"
  mount --bind /proc "$FRESH/proc"
  mount --bind /dev "$FRESH/dev"
  rm -rf "$FRESH/run/systemd/system"
}

inside() {
  quietly chroot "$FRESH" env DEBIAN_FRONTEND=noninteractive PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"
}

# newer: the same package with a higher version.
newer() {
  dpkg-deb -R "$PACKAGE" "$WORK/newer"
  sed -i 's/^Version: .*/&+newer/' "$WORK/newer/DEBIAN/control"
  quietly dpkg-deb -b "$WORK/newer" "$FRESH/newer.deb"
}

# From here on it looks as if systemd ran.
start_systemd() {
  mkdir -p "$FRESH/run/systemd/system"
  rm "$FRESH/usr/bin/systemctl"
  printf '#!/bin/sh\necho "$@" >>/systemctl.log\n' >"$FRESH/usr/bin/systemctl"
  chmod +x "$FRESH/usr/bin/systemctl"
  rm -f "$FRESH/usr/sbin/policy-rc.d" # images of containers forbid the start of services by it
}

# asked <pattern>: of systemd, since it was last looked at.
asked() { grep -q -- "$1" "$LOG" || die "systemd was not asked to: $1; but: $(cat "$LOG")"; }

# owner <path>: of a file in the root.
owner() { chroot "$FRESH" stat -c '%U:%G %a' "$1"; }

check_install() {
  cp "$PACKAGE" "$FRESH/package.deb"
  inside dpkg --force-unsafe-io --no-triggers -i /package.deb
  inside tidegate-agent --version
  [[ $(owner "${SOCKET%/*}") == "tidegate-agent:tidegate-agent 755" ]] || die "no folder for the socket"
  [[ $(owner /etc/tidegate-agent.conf) == "root:tidegate-agent 640" ]] || die "bad mode of the settings"
  [[ ! -e $LINK ]] || die "enabled without being asked"
  inside systemctl enable tidegate-agent
  [[ -L $LINK ]] || die "not enabled"
  inside runuser -u tidegate-agent -- timeout --preserve-status 1 \
    tidegate-agent --config /etc/tidegate-agent.conf --http 127.0.0.1:0
}

check_upgrade() {
  echo "# changed" >>"$CONF"
  newer
  inside dpkg --force-unsafe-io --no-triggers -i /newer.deb
  asked "daemon-reload"
  asked "try-restart.* tidegate-agent.service"
  ! grep -q "stop" "$LOG" || die "an upgrade stops the agent before the new one is there"
  grep -q "^# changed" "$CONF" || die "an upgrade replaces changed settings"
  [[ $(owner /etc/tidegate-agent.conf) == "root:tidegate-agent 640" ]] || die "an upgrade opens the settings"
  [[ -L $LINK ]] || die "an upgrade disables the agent"
}

check_removal() {
  : >"$LOG"
  inside dpkg --force-unsafe-io --no-triggers -r tidegate-agent
  asked "stop.* tidegate-agent.service"
  asked "daemon-reload"
  [[ -e $CONF ]] || die "a removal takes the settings along"
  : >"$FRESH$SOCKET" # as a killed agent leaves it
  mkdir "$FRESH/var/lib/tidegate-agent" # as systemd makes it, for a spool
  inside dpkg --force-unsafe-io --no-triggers -P tidegate-agent
  [[ -z $(find "$WORK/upper/opt/tmp" ! -type c 2>/dev/null) ]] || die "a purge leaves the socket's folder"
  inside id tidegate-agent
  local left
  left=$(find "$WORK/upper" -xdev -name '*tidegate*' ! -type c)
  [[ -z $left ]] || die "a purge leaves: $left"
}

make_root
check_install
start_systemd
check_upgrade
check_removal
