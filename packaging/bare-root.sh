# shellcheck shell=bash
# To be sourced by scripts that try something on a bare Debian: bare_root SUITE [ARCHITECTURE] makes one in $root, a
# minimal system by debootstrap, which `inside` and `as_user` then run commands in. As root. The systems as they come
# from debootstrap are kept under $KALVRIN_ROOTS (default /var/tmp/kalvrin-roots); they take packages from where this
# machine takes its own.
work=$(mktemp -d -p /var/tmp)
root=$work/root
finish() {
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$work"
}
trap finish EXIT

# Runs the rest of the line and shows the end of what it said if it fails.
quietly() { "$@" >"$work/log" 2>&1 || { tail -20 "$work/log" >&2; echo "failed: $*" >&2; return 1; }; }
inside() { chroot "$root" env -i HOME=/root PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
as_user() { chroot --userspec=nobody "$root" env -i HOME=/home/nobody PATH=/usr/bin:/bin LANG=C.UTF-8 bash -euo pipefail -c "cd; $1"; }
install_inside() { quietly inside apt-get install -y -qq --no-install-recommends "$@"; }

bare_root() {
  local suite=$1 arch=${2:-$(dpkg --print-architecture)} kept=${KALVRIN_ROOTS:-/var/tmp/kalvrin-roots} mirror name
  name=$suite
  [ "$arch" = "$(dpkg --print-architecture)" ] || name=$suite-$arch
  if [ ! -e "$kept/$name.tar" ]; then
    mirror=$(sed -n 's/^URIs: *//p; s/^deb \(\[[^]]*\] \)\{0,1\}\([^ ]*\) .*/\2/p' \
      /etc/apt/sources.list.d/*.sources /etc/apt/sources.list 2>/dev/null | sed -n 1p || true)
    echo "making a bare system of $name"
    mkdir -p "$kept"
    quietly debootstrap --arch="$arch" --variant=minbase --include=ca-certificates "$suite" "$work/$suite" "$mirror"
    rm -rf "$work/$suite"/var/cache/apt/archives/*.deb
    tar -C "$work/$suite" -cf "$kept/$name.tar.new" .
    mv "$kept/$name.tar.new" "$kept/$name.tar"
    rm -rf "${work:?}/$suite"
  fi
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$root"
  mkdir -p "$root"
  tar -C "$root" -xf "$kept/$name.tar"
  cp -r /etc/apt/apt.conf.d "$root/etc/apt/"
  rm -f "$root/etc/apt/apt.conf.d/50apt-file.conf"  # lists of all files of all packages
  cp /etc/resolv.conf /etc/hosts "$root/etc/"
  cp -r /usr/local/share/ca-certificates "$root/usr/local/share/" 2>/dev/null || true
  # Manual pages are left out of minimal systems unless that is said.
  rm -f "$root"/etc/dpkg/dpkg.cfg.d/docker
  mount -t proc proc "$root/proc"
  inside update-ca-certificates >/dev/null 2>&1 || true
  inside install -d -o nobody /home/nobody
  quietly inside apt-get update -qq
}
