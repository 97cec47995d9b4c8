#!/usr/bin/env bash
# A job of 50 real .deb packages (one patch each) through the tool with the
# reference script deploy-deb, into a sandbox dpkg root, set against a bare
# shell loop of `dpkg --root=ROOT -i` over the same files into a root of its
# own. A third run calls deploy-deb from a bare loop, without the tool, which
# splits the tool's cost from that of the script's checks (arguments, window,
# architecture, installed version, package database, locks, outcome read
# back from the database, result file written twice). One run of each, every
# one into a fresh root. Goal: tool / bare dpkg at most 1.10.
#
#   bench/deb_install.sh <build dir>       PACKAGES=n (50), FILES=n (20 files per package)
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/bench-args.sh
. "$top/bench/bench-args.sh"
find_bench_tool deb_install "$top" "${1:-build}"
fixtures="$top/tests/support/pkg-fixtures"
script="$top/scripts/deploy/deploy-deb"
count=${PACKAGES:-50}
files=${FILES:-20}
if [ "$(id -u)" -ne 0 ]; then
  echo "deb_install: skipped: installing into a dpkg root needs root"
  exit 0
fi

sandbox=$(mktemp -d "${TMPDIR:-/tmp}/zelkor-bench-deb-XXXXXX")
child=""
cleanup() {
  # Only the run this script started, by its pid.
  if [ -n "$child" ] && kill -0 "$child" 2>/dev/null; then kill "$child" 2>/dev/null || true; fi
  [ -n "${KEEP:-}" ] || rm -rf "$sandbox"
}
trap cleanup EXIT
mkdir -p "$sandbox"/{config,manifests,results,interim,ahs,cgroup,debs}
touch "$sandbox/cgroup/tasks"

debs=()
for ((i = 1; i <= count; ++i)); do
  debs+=("$("$fixtures" deb "$sandbox/debs" "$(printf 'zkbench-%03d' "$i")" 1.0 --files "$files")")
done

us() { printf '%s' "${EPOCHREALTIME/./}"; }
seconds() { awk -v us="$1" 'BEGIN { printf "%.3f", us / 1e6 }'; }
# The same 50 packages must end up installed in every root.
check_root() {
  local installed
  installed=$(dpkg-query --admindir="$1/var/lib/dpkg" -W -f='${db:Status-Abbrev}\n' | grep -c '^ii' || true)
  [ "$installed" -eq "$count" ] || { echo "deb_install: $2 installed $installed of $count packages" >&2; exit 1; }
}

# Bare dpkg, one call per package as the tool makes one script call per package.
"$fixtures" deb-root "$sandbox/bare"
start=$(us)
for deb in "${debs[@]}"; do
  dpkg --root="$sandbox/bare" --log="$sandbox/bare/var/log/dpkg.log" --force-confdef --force-confold \
    -i -- "$deb" >/dev/null
done
bare_us=$(($(us) - start))
check_root "$sandbox/bare" "the bare loop"

# The script alone, from a bare loop.
"$fixtures" deb-root "$sandbox/script"
window=$(($(date +%s) + 3600))
start=$(us)
for deb in "${debs[@]}"; do
  ZELKOR_DPKG_ROOT="$sandbox/script" "$script" "$deb" "$sandbox/script-output.json" "$window" >/dev/null
done
script_us=$(($(us) - start))
check_root "$sandbox/script" "the script loop"

# The tool: argument file, manifest of one patch per package, log at
# information level, as the agent runs it.
"$fixtures" deb-root "$sandbox/tool"
write_bench_log_config "$sandbox"
now=$(date -u +%Y-%m-%dT%H:%M:%S.000Z)
{
  printf '{"schemaversion":1,"manifestinstanceid":1,"jobs":[{"id":"bench-job","runid":1,"type":"INSTALL",'
  printf '"isimmediate":true,"datetime":"%s","timeout":60,"continueafterpackagefailedforpatch":false,"patches":[' "$now"
  for ((i = 0; i < count; ++i)); do
    [ "$i" -eq 0 ] || printf ','
    printf '{"zpatchid":"P-%03d","rebootrequire":false,"downloadinfo":[{"packagesbyarch":[' "$i"
    printf '{"architecture":"x86_64","packages":["%s"]}]}]}' "${debs[$i]}"
  done
  printf '],"postdeployment":{"suppressreboots":true}}]}'
} >"$sandbox/manifests/bench-manifest.json"
write_bench_args "$top" "$sandbox" "$script" "$now"

# The clock starts where the launcher hands over to the tool: the private
# mount namespace that keeps the run off the host's control groups is no part
# of the tool. It ends at the exit-code file's write time.
# shellcheck disable=SC2016 # the launcher's script, expanded by the shell that runs it
launch='[ -z "$1" ] || mount --bind "$1" /sys/fs/cgroup/systemd || exit 1
printf %s "${EPOCHREALTIME/./}" >"$2"
exec "$3" "$4"'
run=(bash -c "$launch" launch "" "$sandbox/started" "$tool" "$sandbox/args.bin")
if [ -d /sys/fs/cgroup/systemd ] && unshare --mount --propagation private true 2>/dev/null; then
  run=(unshare --mount --propagation private -- "${run[@]:0:4}" "$sandbox/cgroup" "${run[@]:5}")
fi
DBUS_SYSTEM_BUS_ADDRESS="unix:path=$sandbox/no-system-bus" ZELKOR_AGENT_CONFIG_DIR="$sandbox/config" \
  ZELKOR_DPKG_ROOT="$sandbox/tool" "${run[@]}"
exitfile=""
for name in "$sandbox"/results/.*.exit; do [ -e "$name" ] && exitfile=$name; done
[ -n "$exitfile" ] || { echo "deb_install: no exit-code file" >&2; exit 1; }
child=${exitfile%.exit}
child=${child##*.}
deadline=$((SECONDS + 600))
while [ ! -s "$exitfile" ]; do
  [ "$SECONDS" -lt "$deadline" ] || { echo "deb_install: the job did not finish" >&2; exit 1; }
  sleep 0.05
done
written=$(stat -c %.6Y "$exitfile")
tool_us=$((${written/./} - $(<"$sandbox/started")))
[ "$(<"$exitfile")" = 0 ] || { echo "deb_install: the tool exited $(<"$exitfile")" >&2; exit 1; }
check_root "$sandbox/tool" "the tool"

per_package() { awk -v us="$1" -v n="$count" 'BEGIN { printf "%.1f ms", us / n / 1000 }'; }
echo "$count packages of $files files each, one run of each, every one into a fresh dpkg root"
echo "bare dpkg -i loop:          $(seconds "$bare_us") s ($(per_package "$bare_us") per package)"
echo "deploy-deb loop, no tool:   $(seconds "$script_us") s ($(per_package "$script_us") per package)"
echo "tool with deploy-deb:       $(seconds "$tool_us") s ($(per_package "$tool_us") per package)"
echo "the script's checks cost:   $(per_package $((script_us - bare_us))) per package"
echo "the tool itself costs:      $(per_package $((tool_us - script_us))) per package"
awk -v t="$tool_us" -v b="$bare_us" -v n="$count" 'BEGIN {
  ratio = sprintf("%.2f", t / b)
  printf "%d .deb through the tool with deploy-deb against a bare dpkg -i loop, ratio: %s, goal <= 1.10, %s\n", n,
    ratio, (ratio + 0 <= 1.10 ? "met" : "missed") }'
