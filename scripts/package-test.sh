#!/usr/bin/env bash
# Builds the Debian packages (scripts/package.sh), checks them with lintian,
# installs them on this machine and tests what was installed, from a folder
# outside the checkout: the version, `analyze` of the bundled sample, `call`
# through the installed service started on demand, the installed socket
# unit's service started by systemd-socket-activate, `python3 -m lmreceipt`
# with the system's python3, the example client built with pkg-config, and
# the man pages. Then removes the packages and checks that none of their
# files is left. Packages left installed by an earlier run are removed first.
#
# usage: scripts/package-test.sh      (as root, or with sudo)
set -euo pipefail
cd "$(dirname "$0")/.."
checkout="$PWD"
sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
export DEBIAN_FRONTEND=noninteractive

scripts/install-deps.sh lintian systemd dpkg-dev file pkg-config
version=$(sed -n 's/^project(lmreceipt VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)

step() { echo "--- package test: $*"; }
fail() { echo "package test FAILED: $*" >&2; exit 1; }

installed() {
  { dpkg-query -W -f='${Package} ${Status}\n' lmreceipt lmreceipt-dev 2>/dev/null || true; } |
    awk '$NF == "installed" { print $1 }'
}
remove_packages() {
  local packages
  packages=$(installed)
  if [ -n "$packages" ]; then
    # shellcheck disable=SC2086
    $sudo apt-get remove -y -qq $packages >/dev/null
  fi
}

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  cd /
  rm -rf "$work"
  remove_packages || true
}
trap cleanup EXIT

step "building the packages"
scripts/package.sh | tee "$work/package.log"
mapfile -t debs < <(grep '^/.*\.deb$' "$work/package.log")
[ ${#debs[@]} -eq 2 ] || fail "expected two .deb files, got ${#debs[@]}"
for deb in "${debs[@]}"; do
  echo "$(basename "$deb"): $(du -k "$deb" | cut -f1) KiB," \
    "installed $(dpkg-deb -f "$deb" Installed-Size) KiB; depends: $(dpkg-deb -f "$deb" Depends)"
done

step "lintian"
lintian --fail-on error --tag-display-limit 0 "${debs[@]}" || fail "lintian reports errors"

step "installing"
remove_packages
if ! $sudo apt-get install -y -qq "${debs[@]}" >"$work/apt.log" 2>&1; then
  $sudo apt-get update -qq
  $sudo apt-get install -y -qq "${debs[@]}" >"$work/apt.log" 2>&1 || {
    cat "$work/apt.log" >&2
    fail "apt-get install"
  }
fi
dpkg -L lmreceipt lmreceipt-dev | grep -v '^/\.$' | sort -u >"$work/files"

# From here on nothing of the checkout or its builds may be used.
cd "$work"
export PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin
unset LM_SERVICE_DIR PYTHONPATH
sample=/usr/share/doc/lmreceipt/examples/sample-receipt.pdf

step "lmreceipt --version"
[ "$(lmreceipt --version)" = "lmreceipt $version" ] || fail "lmreceipt --version: $(lmreceipt --version)"

step "lmreceipt analyze"
analyzed=$(lmreceipt analyze --format summary --tax 7 "$sample")
echo "$analyzed"
[[ $analyzed == *"gross 15.30"* ]] || fail "analyze did not find the sample's gross"

step "lmreceipt call, starting the installed service"
mkdir -m 700 "$work/runtime"
called=$(XDG_RUNTIME_DIR="$work/runtime" lmreceipt call --format summary --tax 7 "$sample")
[ "$called" = "$analyzed" ] || fail "call printed '$called'"
pid=$(sed -n 's/.*lmreceipt-service\[\([0-9]*\):.*Listening.*/\1/p' "$work/runtime/lmreceipt-service.log" |
      tail -1)
[ -n "$pid" ] || fail "no service in the log"
pids+=("$pid")
[ "$(readlink "/proc/$pid/exe")" = /usr/libexec/lmreceipt/lmreceipt-service ] ||
  fail "the service that answered is $(readlink "/proc/$pid/exe")"

step "python3 -m lmreceipt (system python3)"
XDG_RUNTIME_DIR="$work/runtime" /usr/bin/python3 -m lmreceipt --tax 7 "$sample" >"$work/py.json"
/usr/bin/python3 - "$work/py.json" <<'EOF' || fail "python3 -m lmreceipt"
import json, sys
result = json.load(open(sys.argv[1]))
assert result["gross"] == "15.3" and result["facts"]["gross"] == "15.30", result["gross"]
import lmreceipt
assert lmreceipt.find_service_executable() == "/usr/libexec/lmreceipt/lmreceipt-service"
EOF
kill "$pid"

step "the socket unit's service under systemd-socket-activate"
units=/usr/lib/systemd/user
exec_start=$(sed -n 's/^ExecStart=//p' "$units/lmreceipt-service.service")
mkdir -m 700 "$work/activated"
socket=$(sed -n 's/^ListenStream=//p' "$units/lmreceipt-service.socket")
socket=${socket//%t/$work/activated}
[ "$(grep -c '^Requires=lmreceipt-service.socket' "$units/lmreceipt-service.service")" = 1 ] ||
  fail "the service unit does not name its socket unit"
# shellcheck disable=SC2086
systemd-socket-activate -l "$socket" $exec_start 2>"$work/activated.log" &
pids+=($!)
for _ in $(seq 50); do [ -S "$socket" ] && break; sleep 0.1; done
# No service may be started on demand here: the answer must come from the unit's.
activated=$(XDG_RUNTIME_DIR="$work/activated" LM_SERVICE_DIR=/nonexistent \
            lmreceipt call --timeout 60 --format summary --tax 7 "$sample")
[ "$activated" = "$analyzed" ] || fail "call through the activated socket printed '$activated'"
grep -q "Listening on the activated socket" "$work/activated.log" ||
  fail "the service did not take the activated socket"

step "the example client, built with pkg-config"
cp "$checkout/examples/client.cc" "$work/"
# shellcheck disable=SC2046
c++ "$work/client.cc" $(pkg-config --cflags --libs lmreceipt-client) -o "$work/client"
ldd "$work/client" | grep -Eq "liblmreceipt-client.so.0 => /(usr/)?lib/" ||
  fail "the example does not use the installed library"
client_output=$(XDG_RUNTIME_DIR="$work/activated" "$work/client" "$sample")
echo "$client_output"
[[ $client_output == *'"gross":"15.3"'* ]] || fail "the example client"

step "man pages"
man -w lmreceipt >/dev/null && man -w 8 lmreceipt-service >/dev/null || fail "man -w"

step "removing the packages"
/usr/bin/python3 -c 'import lmreceipt' # byte code beside the package, as users leave it
remove_packages
left=()
while read -r path; do
  if [ -d "$path" ] && [ ! -L "$path" ]; then
    # A folder may stay only when another package owns it.
    dpkg -S "$path" >/dev/null 2>&1 || left+=("$path/ ($(ls -A "$path" | head -3 | tr '\n' ' '))")
  elif [ -e "$path" ] || [ -L "$path" ]; then
    left+=("$path")
  fi
done <"$work/files"
[ ${#left[@]} -eq 0 ] || fail "left behind: ${left[*]}"
# The maintainer scripts keep dpkg's record of the removed packages; purge it.
$sudo dpkg --purge lmreceipt lmreceipt-dev >/dev/null 2>&1
echo "package test passed: $(wc -l <"$work/files") paths installed and removed"
