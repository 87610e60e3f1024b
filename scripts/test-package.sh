#!/bin/bash
# Installs a package into a fresh system below /var/tmp, uses it there, and takes it off again.
# Usage: test-package.sh PACKAGE.deb
# Needs root, the machine's package sources, and about 800 MB while it runs.
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)

step() { printf '\n== %s\n' "$*"; }
fail() { printf 'test-package: %s\n' "$*" >&2; exit 1; }

# The sources of the machine's own distribution; others would need keys that the system lacks.
distribution_sources() {
  apt-get indextargets --format "$1" 'Created-By: Packages' 'Origin: Debian'
}

check_statically() {
  step "lintian"
  lintian --allow-root --fail-on error,warning --display-info --pedantic "$package"
  step "shellcheck"
  shellcheck "$here"/test-package*.sh "$here"/../packaging/debian/{postinst,prerm,postrm}
  shellcheck --shell sh "$here"/../packaging/openwrt/vemk/{files/vemk.init,test.sh,test-version.sh}
  shellcheck "$(dirname "$package")/completions/vemkctl"
}

make_system() {
  step "a fresh system"
  # shellcheck disable=SC1091  # the file of the machine
  suite=$(. /etc/os-release && echo "$VERSION_CODENAME")
  mirror=$(distribution_sources "\$(SITE) \$(CODENAME)" |
    awk -v suite="$suite" '$2 == suite && !found++ { print $1 }')
  [ -n "$mirror" ] || fail "no source for $suite; put one into /etc/apt and run apt-get update"
  debootstrap --variant=minbase --include=systemd "$suite" "$system" "$mirror" \
    >"$work/debootstrap.log" || fail "debootstrap failed: $(tail -n 3 "$work/debootstrap.log")"
  distribution_sources "deb \$(SITE) \$(RELEASE) \$(COMPONENT)" | sort -u \
    >"$system/etc/apt/sources.list"
  apt-config dump Acquire | grep -i proxy >"$system/etc/apt/apt.conf.d/90proxy" || true
  cp --remove-destination /etc/resolv.conf "$system/etc/resolv.conf"
  mount -t proc proc "$system/proc"
  in_system apt-get -qq update
}

in_system() {
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
    DEBIAN_FRONTEND=noninteractive ${http_proxy:+http_proxy="$http_proxy"} chroot "$system" "$@"
}

install_package() { in_system apt-get -qq -y -o Dpkg::Use-Pty=0 --no-install-recommends "$@"; }

# Everything but what apt, dpkg and systemd keep for themselves.
list_files() {
  (cd "$system" && find . -xdev \( -path ./proc -o -path ./root -o -path ./run/systemd \
    -o -path ./var/cache -o -path ./var/log/apt -o -path ./var/lib/apt -o -path ./var/lib/dpkg \) \
    -prune -o -print | sort)
}

check_installation() {
  step "install"
  cp "$package" "$system/root/vemk.deb"
  list_files >"$work/before"
  install_package install /root/vemk.deb >/dev/null
  [ -z "$(in_system dpkg --verify vemk)" ] || fail "dpkg --verify: $(in_system dpkg --verify vemk)"
  in_system dpkg -s vemk | grep -E '^(Version|Depends)'
  for file in man8/vemk.8 man5/vemk.conf.5 man1/vemkctl.1 man1/roam-service.1; do
    in_system gzip -t "/usr/share/man/$file.gz" || fail "the manual $file is not installed"
  done
  in_system test -L /etc/systemd/system/multi-user.target.wants/vemk.service ||
    fail "the unit is not enabled"

  step "systemd-analyze verify"
  # The check above already looked for the manuals that the unit names; systemd cannot without man.
  in_system systemd-analyze verify --man=no vemk.service
  in_system systemd-analyze security --offline=true --no-pager vemk.service | tail -n 1
}

check_messages() {
  step "use"
  # A network of its own, in which the port of the shipped configuration is free.
  # shellcheck disable=SC2016  # it expands inside
  unshare --net /bin/bash -c 'ip link set lo up && exec chroot "$1" /bin/bash -s' bash "$system" \
    <"$here/test-package-messages.sh"
}

check_upgrade() {
  step "upgrade"
  sed -i 's/^ap_location=.*/ap_location=edited/' "$system/etc/vemk/vemk.conf"
  dpkg-deb -R "$package" "$work/next"
  sed -i 's/^Version: .*/&.1/' "$work/next/DEBIAN/control"
  echo '# of the next release' >>"$work/next/etc/vemk/vemk.conf"
  dpkg-deb --root-owner-group -b "$work/next" "$system/root/next.deb" >/dev/null
  install_package -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold \
    install /root/next.deb >/dev/null
  grep -qx 'ap_location=edited' "$system/etc/vemk/vemk.conf" ||
    fail "the edited configuration is lost"
  [ -f "$system/etc/vemk/vemk.conf.dpkg-dist" ] || fail "the new configuration is not put beside it"
  in_system dpkg -s vemk | grep '^Version'
}

check_removal() {
  step "remove"
  install_package remove vemk >/dev/null
  [ ! -e "$system/usr/sbin/vemk" ] || fail "the daemon is still there"
  [ -e "$system/etc/vemk/vemk.conf" ] || fail "the configuration went with the programs"
  step "purge"
  [ -e "$system/tmp/vemk.roaming.pid" ] || fail "there is no PID file that purge could remove"
  install_package purge vemk >/dev/null
  install_package autoremove --purge >/dev/null
  list_files >"$work/after"
  diff "$work/before" "$work/after" || fail "this is what was there before (<) and is now (>)"
  echo "nothing is left"
}

inside() {
  work=$1 package=$2 system=$1/system
  make_system
  check_installation
  check_messages
  check_upgrade
  check_removal
}

if [ "${1-}" = --inside ]; then
  inside "$2" "$3"
  exit
fi

[ $# -eq 1 ] || fail "name one package, as in: test-package.sh build-package/vemk_VERSION-1_amd64.deb"
[ -f "$1" ] || fail "there is no package $1; make it with: make package"
[ "$(id -u)" -eq 0 ] || fail "this needs root: sudo $0 $1"
package=$(realpath "$1")
check_statically
work=$(mktemp -d /var/tmp/vemk-package-test.XXXXXX)
trap 'rm -rf --one-file-system "$work"' EXIT
# Mounts and processes of the test end with these namespaces in any case.
unshare --mount --pid --fork --kill-child "$0" --inside "$work" "$package"
step "the package passed, in $SECONDS seconds"
