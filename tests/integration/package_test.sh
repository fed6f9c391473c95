#!/usr/bin/env bash
# package_test.sh workdir SCRIPT EXAMPLES_DIR
#   the working-directory script against a fake installed prefix
# package_test.sh install CPACK BUILD_DIR SOURCE_DIR VERSION
#   builds the .deb, installs it into a fresh dpkg root, checks it, removes it
# Everything happens in a temp dir; the machine's dpkg database and /etc are
# never touched.
set -euo pipefail
export PATH=$PATH:/usr/sbin:/sbin # dpkg wants ldconfig and start-stop-daemon

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# Snapshot of a tree that changes if anything is created, removed, retargeted or rewritten.
tree_state() { find "$1" -printf '%P %y %l %s %T@\n' | sort; }

# check_workdir SCRIPT PREFIX: PREFIX holds share/lumbra/examples and lib/lumbra/driver.
check_workdir() {
  local script=$1 prefix=$2 wd=$work/wd rc
  local examples=$prefix/share/lumbra/examples
  local drivers=("$prefix"/lib/lumbra/driver/lib*.so)
  run() { LUMBRA_PREFIX=$prefix timeout 30 "$script" "$@"; }
  [[ ${#drivers[@]} -ge 2 && -f ${drivers[0]} ]] || fail "need two drivers in $prefix/lib/lumbra/driver"

  run "$wd" 2>"$work/run1.log" || fail "first run: $(cat "$work/run1.log")"
  cmp -s "$examples/zlog.conf" "$wd/zlog.conf" || fail "zlog.conf not copied"
  cmp -s "$examples/timeZone" "$wd/timeZone" || fail "timeZone not copied"
  compgen -G "$wd/iotRunTime/*.json" >/dev/null && fail "example device configuration copied"
  local so
  for so in "${drivers[@]}"; do
    [[ $(readlink "$wd/iotRunTime/driver/${so##*/}") == "$so" ]] || fail "no link to $so"
  done

  # What a box looks like after users and upgrades have been at it.
  local own=$wd/iotRunTime/driver/${drivers[0]##*/} stale=$wd/iotRunTime/driver/${drivers[1]##*/}
  echo "user edit" >"$wd/zlog.conf"
  rm "$wd/timeZone"
  rm "$own" && echo "own build" >"$own"
  ln -sfn "$work/old/${drivers[1]##*/}" "$stale"
  ln -s "$prefix/lib/lumbra/driver/libgone.so" "$wd/iotRunTime/driver/libgone.so"
  ln -s "$work/elsewhere/libmine.so" "$wd/iotRunTime/driver/libmine.so"
  run "$wd" 2>"$work/run2.log" || fail "second run: $(cat "$work/run2.log")"
  [[ $(cat "$wd/zlog.conf") == "user edit" ]] || fail "edited zlog.conf overwritten"
  cmp -s "$examples/timeZone" "$wd/timeZone" || fail "missing timeZone not restored"
  [[ ! -L $own && $(cat "$own") == "own build" ]] || fail "a regular driver file was replaced"
  [[ $(readlink "$stale") == "${drivers[1]}" ]] || fail "stale link kept"
  [[ -L $wd/iotRunTime/driver/libgone.so ]] && fail "link to a driver no longer shipped kept"
  [[ -L $wd/iotRunTime/driver/libmine.so ]] || fail "user's own link removed"

  local before; before=$(tree_state "$wd")
  run "$wd" 2>/dev/null || fail "third run"
  [[ $(tree_state "$wd") == "$before" ]] || fail "a run on a prepared directory changed it"

  rc=0; run 2>/dev/null || rc=$?
  [[ $rc -eq 2 ]] || fail "no argument: exit $rc, want 2"
  touch "$work/file"
  rc=0; run "$work/file/wd" 2>/dev/null || rc=$?
  [[ $rc -eq 1 ]] || fail "uncreatable directory: exit $rc, want 1"
  rm -rf "$wd" "$work/file"
}

workdir_test() { # SCRIPT EXAMPLES_DIR
  local prefix=$work/prefix/usr
  mkdir -p "$prefix/share/lumbra" "$prefix/lib/lumbra/driver"
  cp -r "$2" "$prefix/share/lumbra/examples"
  touch "$prefix/lib/lumbra/driver/libmodbus_rtu.so" "$prefix/lib/lumbra/driver/libmodbus_tcp.so"
  check_workdir "$1" "$prefix"
}

# Every path the unit names is in the package, except the working directory it makes.
check_unit() { # ROOT FILE_LIST
  local unit=$1/lib/systemd/system/lumbra.service p
  grep -Eq '^ExecStart=/usr/bin/lumbra-agent .*/usr/bin/Lumbra$' "$unit" || fail "unit does not run the agent with the gateway"
  for p in $(grep -E '^(Exec[A-Za-z]*|WorkingDirectory)=' "$unit" | grep -Eo '(^|[ =])/[^ ]+' | tr -d ' ='); do
    [[ $p == /var/lib/lumbra ]] || grep -qx "$p" <<<"$2" || fail "unit names $p, which the package lacks"
  done
  if command -v systemd-analyze >/dev/null; then
    (cd "$work" && timeout 60 systemd-analyze verify --man=no --recursive-errors=no --root="$1" lumbra.service) ||
      fail "systemd-analyze rejects the unit"
  fi
}

check_control() { # DEB VERSION FALLBACK_DEPENDS_FILE
  local arch; arch=$(dpkg --print-architecture)
  [[ $(dpkg-deb -f "$1" Package) == lumbra ]] || fail "package name"
  [[ $(dpkg-deb -f "$1" Version) == "$2" ]] || fail "version is not $2"
  [[ $(dpkg-deb -f "$1" Architecture) == "$arch" ]] || fail "architecture is not $arch"
  [[ ${1##*/} == "lumbra_$2_$arch.deb" ]] || fail "file name ${1##*/}"
  local depends lib; depends=$(dpkg-deb -f "$1" Depends)
  for lib in libc6 libqt5core5a libqt5network5 libnanomsg5 libmosquitto1 libsqlite3-0 liblua5.2-0 libcurl4 libmodbus5; do
    grep -Eq "(^|, )$lib( |,|$)" <<<"$depends" || fail "Depends lacks $lib: $depends"
  done
  # The cross build's stand-in list must not fall behind what the binaries link.
  local fallback; fallback=$(cat "$3") || fail "no $3"
  for lib in $(names "$depends"); do
    grep -qx "$lib" <<<"$(names "$fallback")" || fail "LUMBRA_DEB_DEPENDS lacks $lib"
  done
}
names() { tr ',' '\n' <<<"$1" | sed -E 's/\(.*\)//; s/ //g' | grep -v '^$'; }

check_files() { # ROOT FILE_LIST SOURCE_DIR
  local p
  for p in /usr/bin/Lumbra /usr/bin/lumbra-agent /usr/bin/lumbra-plcsim /usr/bin/lumbra-platform \
    /usr/lib/lumbra/driver/libmodbus_rtu.so /usr/lib/lumbra/driver/libmodbus_tcp.so \
    /etc/lumbra/agent.ini /lib/systemd/system/lumbra.service /lib/systemd/system/lumbra-platform.service \
    /usr/share/lumbra/platform/www/{index.html,js/main.js,uPlot.iife.min.js,uPlot.min.css,uPlot.LICENSE} \
    /usr/share/lumbra/lumbra-prepare-workdir /usr/share/doc/lumbra/README.md; do
    if ! grep -qx "$p" <<<"$2" || [[ ! -f $1$p ]]; then fail "$p not installed"; fi
  done
  for p in /usr/bin/Lumbra /usr/bin/lumbra-agent /usr/bin/lumbra-plcsim /usr/bin/lumbra-platform \
    /usr/share/lumbra/lumbra-prepare-workdir; do
    [[ -x $1$p ]] || fail "$p not executable"
  done
  for p in /usr/bin/Lumbra /usr/bin/lumbra-agent /usr/bin/lumbra-plcsim /usr/bin/lumbra-platform \
    /usr/lib/lumbra/driver/libmodbus_{rtu,tcp}.so; do
    [[ $(readelf -S "$1$p") == *.debug_info* ]] && fail "$p not stripped"
  done
  diff -r "$3/examples" "$1/usr/share/lumbra/examples" || fail "examples differ from the source tree"
}

install_test() { # CPACK BUILD_DIR SOURCE_DIR VERSION
  local pkgdir=$2/package root=$work/root
  rm -rf "$pkgdir"
  (cd "$2" && timeout 800 "$1" -G DEB -B "$pkgdir") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail "cpack"; }
  local debs=("$pkgdir"/lumbra_*.deb)
  [[ ${#debs[@]} -eq 1 && -f ${debs[0]} ]] || fail "want one package, got: ${debs[*]}"
  check_control "${debs[0]}" "$4" "$2/packaging/fallback-depends"

  mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
  touch "$root/var/lib/dpkg/status"
  local not_root=(); [[ $(id -u) -eq 0 ]] || not_root=(--force-not-root)
  # The fresh root has none of the libraries: only the dependency check needs forcing.
  dpkgr() { timeout 120 dpkg --root="$root" --log=/dev/null "${not_root[@]}" "$@" </dev/null; }
  query() { dpkg-query --admindir="$root/var/lib/dpkg" -W -f="\${$1}" lumbra 2>/dev/null || true; }
  dpkgr --force-depends -i "${debs[0]}" >/dev/null || fail "dpkg -i"
  [[ $(query Status) == "install ok installed" ]] || fail "status after install: $(query Status)"

  local files; files=$(dpkg --root="$root" -L lumbra)
  check_files "$root" "$files" "$3"
  check_unit "$root" "$files"
  grep -Eqx ' /etc/lumbra/agent.ini [0-9a-f]{32}' <<<"$(query Conffiles)" || fail "agent.ini is not a conffile"
  check_workdir "$root/usr/share/lumbra/lumbra-prepare-workdir" "$root/usr"

  echo "; site setting" >>"$root/etc/lumbra/agent.ini"
  dpkgr --force-depends -i "${debs[0]}" >/dev/null || fail "reinstall"
  grep -q '^; site setting' "$root/etc/lumbra/agent.ini" || fail "reinstall overwrote the edited agent.ini"

  dpkgr -r lumbra >/dev/null || fail "dpkg -r"
  [[ $(query Status) == "deinstall ok config-files" ]] || fail "status after removal: $(query Status)"
  local left; left=$(cd "$root" && find . -path ./var/lib/dpkg -prune -o ! -type d -print)
  [[ $left == ./etc/lumbra/agent.ini ]] || fail "removal left: $left"
  dpkgr -P lumbra >/dev/null || fail "dpkg -P"
  [[ ! -e $root/etc/lumbra/agent.ini ]] || fail "purge kept agent.ini"
  [[ $(query Status) == "" || $(query Status) == "unknown ok not-installed" ]] || fail "status after purge: $(query Status)"
}

case ${1:-} in
  workdir) [[ $# -eq 3 ]] || fail "usage"; workdir_test "$2" "$3" ;;
  install) [[ $# -eq 5 ]] || fail "usage"; install_test "$2" "$3" "$4" "$5" ;;
  *) fail "usage: $0 workdir SCRIPT EXAMPLES | install CPACK BUILD_DIR SOURCE_DIR VERSION" ;;
esac
echo PASS
