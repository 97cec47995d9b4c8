#!/usr/bin/env bash
# The README's run by hand, as written: its sh blocks between the walk-through
# markers, in order, in one shell, from a directory that looks like a clone
# whose build is in build/. As root, the run gets a private mount namespace of
# its own, so that its detach never joins the host's control groups or
# reaches the host's systemd.
#   tests/e2e/readme_walkthrough_test.sh <source dir> <build dir>
set -euo pipefail
top=$1
build=$2
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir -p "$scratch/clone/build" "$scratch/tmp" "$scratch/cgroup" "$scratch/empty"
touch "$scratch/cgroup/tasks"
ln -s "$top/proto" "$scratch/clone/proto"
ln -s "$build/bin" "$scratch/clone/build/bin"
awk '/^<!-- walkthrough -->$/ { on = 1 } /^<!-- \/walkthrough -->$/ { on = 0 }
     on && /^```sh$/ { code = 1; next } code && /^```$/ { code = 0; next } code' \
  "$top/README.md" >"$scratch/walkthrough.sh"
[ -s "$scratch/walkthrough.sh" ] || { echo "no walk-through found in README.md"; exit 1; }

cd "$scratch/clone"
export TMPDIR="$scratch/tmp" DBUS_SYSTEM_BUS_ADDRESS="unix:path=$scratch/no-bus"
isolate=()
# shellcheck disable=SC2016
[ "$(id -u)" -ne 0 ] || isolate=(unshare --mount --propagation private -- bash -c '
    mount --bind "$1" /sys/fs/cgroup/systemd 2>/dev/null || true
    [ ! -d /run/systemd ] || mount --bind "$2" /run/systemd
    exec "${@:3}"' _ "$scratch/cgroup" "$scratch/empty")
"${isolate[@]}" bash -euo pipefail "$scratch/walkthrough.sh" >"$scratch/output" 2>&1

status=0
# The terminal shows the log before the detach; then the outcome.
for want in 'Information|[' 'exit code: 0' '"failed":[{"id":"P-1"' '"successPackages":["hello"]' \
  '"name":"broken","exitCode":1,"errorMessage":"stdError: [, cannot install broken'; do
  grep -qF -- "$want" "$scratch/output" || { echo "the walk-through's output lacks: $want"; status=1; }
done
[ "$status" -eq 0 ] || { echo "---- output"; cat "$scratch/output"; }
exit "$status"
