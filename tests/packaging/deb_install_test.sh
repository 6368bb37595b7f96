#!/usr/bin/env bash
# Installs the Debian packages for real without touching the machine: in a private mount
# namespace, overlays over /usr, /etc and /var take every write, and dpkg installs there as
# on a fresh host. The installed vdxctl, vdxd, Python package and a C program built with
# pkg-config then run in the installed vdx-sim. Purging the packages must leave nothing of
# them behind (dpkg's own records and the linker cache aside).
#   deb_install_test.sh DEB_DIR      (as root)
set -euo pipefail
debs=$(cd "$1" && pwd)
if [ -z "${ZOVDX_IN_NAMESPACE:-}" ]; then
  ZOVDX_IN_NAMESPACE=1 exec unshare --mount --propagation private "$0" "$@"
fi
# The build's environment (a sanitized build's preloads) is not the installed system's.
unset LD_PRELOAD LD_LIBRARY_PATH PYTHONPATH ZOVDX_LIBRARY ASAN_OPTIONS UBSAN_OPTIONS

work=$(mktemp -d)
mount -t tmpfs tmpfs "$work"
for dir in usr etc var; do
  mkdir "$work/$dir.upper" "$work/$dir.work"
  mount -t overlay overlay -o "lowerdir=/$dir,upperdir=$work/$dir.upper,workdir=$work/$dir.work" "/$dir"
done
mount -t tmpfs tmpfs /run  # no systemd here: the packages must not need one

step() { printf '== %s\n' "$*"; }
step "install"
dpkg -i "$debs"/*.deb >/dev/null
packages=$(for deb in "$debs"/*.deb; do dpkg-deb -f "$deb" Package; done)
for pkg in $packages; do
  [ "$(dpkg-query -W -f='${db:Status-Status}' "$pkg")" = installed ] || { echo "$pkg not installed"; exit 1; }
done
[ -f /usr/lib/systemd/system/vdxd.service ] && ! [ -e /etc/systemd/system/multi-user.target.wants/vdxd.service ]

step "the installed tools in the installed simulator"
vdx-sim -- sh -c '
  set -e
  vdxctl create 0 --units 8,4 --memory 1024,2048
  vdxctl --format csv vdevs | grep -q "^1,0,ZO XC-100 32G,4,2147483648,"
  vdxd --interval 1 >/tmp/vdxd.log 2>&1 &
  daemon=$!
  for i in $(seq 50); do vdxctl --format json vdevs | grep -q "\"started\": false" || break; sleep 0.1; done
  curl -sf http://127.0.0.1:9464/metrics | grep -q "^vdx_vdev_started{vdev=\"1\".* 1$"
  vdxctl stop 1 && vdxctl --format json vdevs | grep -q "\"started\": false"
  kill "$daemon"; wait "$daemon"
  /usr/bin/python3 -c "import zovdx; assert [v.compute_units for v in zovdx.vdevices()] == [8, 4]"
'
cat > "$work/probe.c" <<'C'
#include <stdio.h>
#include <zovdx/vdx.h>
int main(void) {
  int count = 0;
  vdxDeviceInfo info;
  if (vdxGetDeviceCount(&count) != VDX_STATUS_SUCCESS || vdxGetDeviceInfo(0, &info) != VDX_STATUS_SUCCESS)
    return 1;
  printf("%d %s\n", count, info.name);
  return 0;
}
C
# shellcheck disable=SC2046  # pkg-config's words are meant to split
cc -o "$work/probe" "$work/probe.c" $(pkg-config --cflags --libs zovdx)
[ "$(vdx-sim -- "$work/probe")" = "2 ZO XC-100 32G" ]
[ -f /usr/share/man/man1/vdx-sim.1.gz ] && [ -f /usr/share/man/man8/vdxd.8.gz ]
if [ -x /usr/bin/vdx-device-plugin ]; then
  vdx-device-plugin --version | grep -q "^vdx-device-plugin 1.0.0$"
fi

step "purge"
# shellcheck disable=SC2086  # one word per package
dpkg --purge $packages >/dev/null
left=$(cd "$work" && find usr.upper etc.upper var.upper -mindepth 1 ! -type d \
         ! -path etc.upper/ld.so.cache ! -path 'etc.upper/vdev/*' \
         ! -path 'var.upper/lib/dpkg/*' ! -path 'var.upper/log/*' ! -path 'var.upper/cache/*')
if [ -n "$left" ]; then
  printf 'left behind:\n%s\n' "$left"
  exit 1
fi
echo "deb-install-ok"
