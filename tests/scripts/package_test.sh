#!/usr/bin/env bash
# The Debian package as an operator gets it: scripts/package builds it (lintian must
# find no error), its files, control fields and unit files are checked against what is
# written down here, then it is unpacked into a scratch root whose service, started as
# quillon.service and as instances of quillon@.service would start it, must answer
# get_info on the test broker.
#
#   package_test.sh BUILD_DIR      (QUILLON_TEST_AMQP_URL: the test broker)
set -euo pipefail
src=$(cd "$(dirname "$0")/../.." && pwd)
build_dir=$1
url=${QUILLON_TEST_AMQP_URL:-$(bash "$src/scripts/test-broker" url)}
work=$(mktemp -d /tmp/quillon-package-test.XXXXXX)
root=$work/root
tag=pkgtest$$
service_pid=""

cleanup() {
  [ -z "$service_pid" ] || kill -KILL "$service_pid" 2>/dev/null || true
  local q
  for q in $(bash "$src/scripts/test-broker" ctl list_queues -q -p /api name 2>/dev/null | grep "^$tag" || true); do
    bash "$src/scripts/test-broker" ctl delete_queue -p /api "$q" >/dev/null 2>&1 || true
  done
  rm -rf "$work"
}
trap cleanup EXIT

fail() {
  echo "FAIL: $*" >&2
  exit 1
}
step() { echo "-- $*"; }

# ---------------------------------------------------------------- the package itself
step "scripts/package"
QUILLON_BUILD_DIR=$build_dir bash "$src/scripts/package"
version=$(sed -n 's/^project(Quillon VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")
deb=$build_dir/quillon_${version}_$(dpkg --print-architecture).deb
[ -f "$deb" ] || fail "no $deb"

step "file list"
# Every file with its mode and owner; directories are left out. The documentation is
# every page of docs/.
dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $1, $2, $6}' | sort >"$work/files.actual"
{
  grep -v '^#' "$src/tests/scripts/package_files.txt" | grep .
  for doc in "$src"/docs/*.md; do
    echo "-rw-r--r-- root/root ./usr/share/doc/quillon/$(basename "$doc")"
  done
} | sort >"$work/files.expected"
diff -u "$work/files.expected" "$work/files.actual" || fail "the package's files differ from tests/scripts/package_files.txt (- expected, + packaged)"

step "control"
dpkg-deb -e "$deb" "$work/control"
depends=$(dpkg-deb -f "$deb" Depends)
depends_names=$(tr ',' '\n' <<<"$depends" | awk '{print $1}')
for dep in adduser libqt5sql5-sqlite libqt5core5a libqt5sql5 librabbitmq4 libpq5 libc6 libstdc++6; do
  grep -Fqx "$dep" <<<"$depends_names" || fail "Depends lacks $dep: $depends"
done
[ "$(dpkg-deb -f "$deb" Recommends)" = logrotate ] || fail "Recommends is not logrotate"
# Every file in /etc is a conffile, and nothing else is.
sed -n 's#^.* \./etc/#/etc/#p' "$work/files.expected" | sort >"$work/conffiles.expected"
sort "$work/control/conffiles" | diff -u "$work/conffiles.expected" - || fail "conffiles differ"
for script in postinst prerm postrm; do
  [ -x "$work/control/$script" ] || fail "no executable $script"
  sh -n "$work/control/$script" || fail "$script does not parse"
done
grep -q 'adduser --system --group' "$work/control/postinst" || fail "postinst makes no system user"

step "unpacked files"
dpkg-deb -x "$deb" "$root"
for elf in "$root"/usr/bin/* "$root"/usr/lib/quillon/plugins/*.so; do
  ! readelf -d "$elf" | grep -Eq 'RPATH|RUNPATH' || fail "$elf keeps a run path into the build"
done
grep -qx 'PLUGIN_PATH=/usr/lib/quillon/plugins' "$root/etc/quillon/quillon.ini" || fail "quillon.ini: PLUGIN_PATH"
grep -qx 'PLUGIN_DB_CONFIG_PATH=/etc/quillon' "$root/etc/quillon/quillon.ini" || fail "quillon.ini: PLUGIN_DB_CONFIG_PATH"
grep -qx 'LOG_FILE_PATH=/var/log/quillon/quillon.log' "$root/etc/quillon/quillon.ini" || fail "quillon.ini: LOG_FILE_PATH"
grep -q '"/var/lib/quillon/quillon.db"' "$root/etc/quillon/plug_db_driver_sqlite.json" || fail "the SQLite store is not in /var/lib/quillon"
grep -q copytruncate "$root/etc/logrotate.d/quillon" || fail "logrotate without copytruncate"

step "unit files"
units=$root/lib/systemd/system
grep -qx 'ExecStart=/usr/bin/quillon -c /etc/quillon/quillon.ini' "$units/quillon.service" || fail "quillon.service: ExecStart"
grep -qx 'ExecStart=/usr/lib/quillon/quillon-instance %i' "$units/quillon@.service" || fail "quillon@.service: ExecStart"
for unit in quillon.service quillon@.service; do
  grep -qx 'User=quillon' "$units/$unit" || fail "$unit does not run as quillon"
  grep -qx 'WantedBy=multi-user.target' "$units/$unit" || fail "$unit: WantedBy"
done
if command -v systemd-analyze >/dev/null; then
  # The units with their programs moved into the scratch root; any remark fails.
  mkdir "$work/units"
  for unit in quillon.service quillon@.service; do
    sed "s#=/usr/#=$root/usr/#" "$units/$unit" >"$work/units/$unit"
  done
  cp "$work/units/quillon@.service" "$work/units/quillon@1-of-2.service"
  for unit in quillon.service quillon@1-of-2.service; do
    remarks=$(systemd-analyze verify "$work/units/$unit" 2>&1) || fail "systemd-analyze verify $unit: $remarks"
    [ -z "$remarks" ] || fail "systemd-analyze verify $unit: $remarks"
  done
else
  echo "systemd-analyze is not installed: unit files checked by their lines only"
fi

step "quillon-instance refuses names that are not POSITION-of-COUNT"
# Status 2, which quillon@.service does not restart, and a reason.
for name in 1 1of2 x-of-2 1-of- -of-2 1-of-2-of-3 ""; do
  status=0
  out=$("$root/usr/lib/quillon/quillon-instance" "$name" 2>&1) || status=$?
  [ "$status" -eq 2 ] || fail "quillon-instance '$name': status $status, not 2"
  grep -q "quillon-instance: " <<<"$out" || fail "quillon-instance '$name': no reason given: $out"
done
grep -qx 'RestartPreventExitStatus=2' "$units/quillon@.service" || fail "quillon@.service restarts a bad name"

# ---------------------------------------------------------------- the service running
# The configuration moved into the scratch root and onto the test broker, with queue
# names of this run alone.
step "configuration for the scratch root"
mkdir -p "$root/var/lib/quillon" "$root/var/log/quillon"
for f in "$root"/etc/quillon/quillon.ini "$root"/etc/quillon/*.json; do
  sed -i -e "s#/usr/lib/quillon#$root/usr/lib/quillon#" -e "s#/etc/quillon#$root/etc/quillon#" \
    -e "s#/var/log/quillon#$root/var/log/quillon#" -e "s#/var/lib/quillon#$root/var/lib/quillon#" "$f"
done
cat >>"$root/etc/quillon/quillon.ini" <<EOF

[AMQP_UL_SETTINGS]
R_LOGIN=$url
R_QUEUE=${tag}_ul

[AMQP_UL_CLIENT_SETTINGS]
R_LOGIN=$url

[AMQP_API_SETTINGS]
R_LOGIN=$url
R_QUEUE=${tag}_cmd
R_BINDINGS=norvik.api:cmd.in.$tag
EOF
cli=("$root/usr/bin/quillon-cli" -c "$root/etc/quillon/quillon.ini")

# Starts "$@" in the scratch root's state directory, as the units do.
start_service() {
  (cd "$root/var/lib/quillon" && exec "$@") >"$work/service.out" 2>&1 &
  service_pid=$!
}

# Waits until get_info answers, then checks the instance position and count it reports.
expect_info() {
  local position=$1 count=$2 reply="" i
  for ((i = 0; i < 60; i++)); do
    kill -0 "$service_pid" 2>/dev/null || fail "the service ended: $(cat "$work/service.out")"
    if reply=$("${cli[@]}" --plain --timeout 2 get_info 2>/dev/null); then
      break
    fi
    sleep 0.5
  done
  [ -n "$reply" ] || fail "no answer to get_info: $(cat "$work/service.out")"
  python3 - "$position" "$count" "$reply" <<'PY' || fail "get_info: $reply"
import json, sys
position, count, reply = int(sys.argv[1]), int(sys.argv[2]), json.loads(sys.argv[3])
info = reply["proto7:marl2"]
assert info["db plugin"] == "db_driver_sqlite", info
assert info["protocol"] != "", info
assert info["instance number"] == position, info
assert info["instances count"] == count, info
PY
}

stop_service() {
  kill -TERM "$service_pid"
  local status=0
  wait "$service_pid" || status=$?
  service_pid=""
  [ "$status" -eq 0 ] || fail "the service stopped with status $status: $(cat "$work/service.out")"
}

step "quillon.service's command"
exec_start=$(sed -n 's/^ExecStart=//p' "$units/quillon.service")
read -r -a command <<<"${exec_start//\/usr\//$root/usr/}"
command=("${command[@]//\/etc\//$root/etc/}")
start_service "${command[@]}"
expect_info 0 1
# The package's log rotation while the service holds its log open: what the service
# writes afterwards starts the emptied file (appended, no hole of zeros before it).
log=$root/var/log/quillon/quillon.log
[ -s "$log" ] || fail "no log in /var/log/quillon"
sed -e "s#/var/log/quillon#$root/var/log/quillon#" -e "s#^\( *su \).*#\1root root#" \
  "$root/etc/logrotate.d/quillon" >"$work/logrotate.conf"
logrotate -f -s "$work/logrotate.state" "$work/logrotate.conf" || fail "logrotate failed"
grep -q started "$log.1" || fail "the rotated log lacks the start: $(ls -l "$root/var/log/quillon")"
stop_service
[ -s "$root/var/lib/quillon/quillon.db" ] || fail "no SQLite store in /var/lib/quillon"
grep -q stopped "$log" || fail "the service's last lines are not in the rotated-to log"
[ "$(head -c 4 "$log" | tr -d '\0' | wc -c)" -eq 4 ] || fail "the log after rotation starts with zeros"
! grep -q started "$log" || fail "the log was not emptied by the rotation"

step "quillon@0-of-3: quillon.ini, position 0 of 3"
start_service "$root/usr/lib/quillon/quillon-instance" 0-of-3
expect_info 0 3
stop_service

step "quillon@1-of-2: its own quillon-1-of-2.ini, log and store"
etc=$root/etc/quillon
sed -e "s#^LOG_FILE_PATH=.*#LOG_FILE_PATH=$root/var/log/quillon/quillon-1-of-2.log#" \
  -e "s#^PLUGIN_DB_CONFIG_PATH=.*#PLUGIN_DB_CONFIG_PATH=$etc/plug_db_driver_sqlite-1-of-2.json#" \
  "$etc/quillon.ini" >"$etc/quillon-1-of-2.ini"
sed "s#quillon.db#quillon-1-of-2.db#" "$etc/plug_db_driver_sqlite.json" >"$etc/plug_db_driver_sqlite-1-of-2.json"
start_service "$root/usr/lib/quillon/quillon-instance" 1-of-2
expect_info 1 2
stop_service
[ -s "$root/var/lib/quillon/quillon-1-of-2.db" ] || fail "instance 1-of-2 did not use its own store"
[ -s "$root/var/log/quillon/quillon-1-of-2.log" ] || fail "instance 1-of-2 did not write its own log"

echo "package test passed: $deb"
