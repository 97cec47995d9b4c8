#!/usr/bin/env bash
# Whole-process throughput of a patch job: 100 patches of 5 packages each,
# deployed by a script that only writes its output file. The tool's time, from
# its start until its exit-code file holds the code, is set against a plain
# shell loop running the same script 500 times; the ratio shows what the tool
# adds per package (goal: at most 1.10). The detached run's peak resident
# memory is sampled from /proc during one more run, which is not timed (goal:
# under 20 MB).
#
#   bench/job_throughput.sh <build dir>       REPEAT=n runs (default 5)
#   PATCHES=n (100) and PACKAGES_PER_PATCH=n (5) size the job; one package
#   alone shows the fixed cost of a run (start, detach, result document).
#   FAILING_OUTPUT_KIB=n makes every package fail after printing n KiB on
#   each of its streams; MEMORY_GOAL_MB=n (20) is the goal for the peak.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=bench/bench-args.sh
. "$top/bench/bench-args.sh"
find_bench_tool job_throughput "$top" "${1:-build}"
command -v protoc >/dev/null || { echo "job_throughput: protoc is missing" >&2; exit 1; }
repeat=${REPEAT:-5}
patches=${PATCHES:-100}
perPatch=${PACKAGES_PER_PATCH:-5}
packages=$((patches * perPatch))
failKib=${FAILING_OUTPUT_KIB:-0}
memoryGoal=${MEMORY_GOAL_MB:-20}

sandbox=$(mktemp -d "${TMPDIR:-/tmp}/zelkor-bench-XXXXXX")
child=""
cleanup() {
  # Only the run this script started, by its pid.
  if [ -n "$child" ] && kill -0 "$child" 2>/dev/null; then kill "$child" 2>/dev/null || true; fi
  exec 9>&- 2>/dev/null || true
  [ -n "${KEEP:-}" ] || rm -rf "$sandbox"
}
trap cleanup EXIT
mkdir -p "$sandbox"/{config,manifests,results,interim,ahs,cgroup}
touch "$sandbox/cgroup/tasks"
# A descriptor that never becomes readable: `read -t` on it waits without
# starting a process, so the sampling loop stays off the measured CPUs.
mkfifo "$sandbox/tick"
exec 9<>"$sandbox/tick"
pause() { read -r -t "$1" -u 9 _ || true; }

write_bench_log_config "$sandbox"

script="$sandbox/deploy.sh"
if [ "$failKib" -gt 0 ]; then
  cat >"$script" <<SCRIPT
#!/bin/sh
head -c $((failKib * 1024)) /dev/zero
head -c $((failKib * 1024)) /dev/zero >&2
printf '{"customExitCode":3,"exitCode":3}' > "\$2"
SCRIPT
else
  cat >"$script" <<'SCRIPT'
#!/bin/sh
printf '{"customExitCode":0,"exitCode":0}' > "$2"
SCRIPT
fi
chmod 755 "$script"

started=$(date -u +%Y-%m-%dT%H:%M:%S.000Z)
{
  printf '{"schemaversion":1,"manifestinstanceid":1,"jobs":[{"id":"bench-job","runid":1,"type":"INSTALL",'
  printf '"isimmediate":true,"datetime":"%s","timeout":600,"continueafterpackagefailedforpatch":false,"patches":[' "$started"
  for p in $(seq 1 "$patches"); do
    [ "$p" -gt 1 ] && printf ','
    printf '{"zpatchid":"P-%03d","rebootrequire":false,"downloadinfo":[{"packagesbyarch":[' "$p"
    printf '{"architecture":"x86_64","packages":['
    for k in $(seq 1 "$perPatch"); do
      [ "$k" -gt 1 ] && printf ','
      printf '"package-%03d-%d"' "$p" "$k"
    done
    printf ']}]}]}'
  done
  printf '],"postdeployment":{"suppressreboots":true}}]}'
} >"$sandbox/manifests/bench-manifest.json"

write_bench_args "$top" "$sandbox" "$script" "$started"

# The tool's clock starts where the launcher hands over to it: the private
# mount namespace that keeps a root run off the host's control groups (below)
# costs some process starts of its own, which are no part of the tool.
stamp="$sandbox/started"
# shellcheck disable=SC2016 # the launcher's script, expanded by the shell that runs it
launch='[ -z "$1" ] || mount --bind "$1" /sys/fs/cgroup/systemd || exit 1
printf %s "${EPOCHREALTIME/./}" >"$2"
ZELKOR_AGENT_CONFIG_DIR=$3 exec "$4" "$5"'
run=(bash -c "$launch" launch "" "$stamp" "$sandbox/config" "$tool" "$sandbox/args.bin")
if [ "$(id -u)" -eq 0 ] && [ -d /sys/fs/cgroup/systemd ] &&
  unshare --mount --propagation private true 2>/dev/null; then
  # As root the detached run joins /sys/fs/cgroup/systemd/tasks; a private
  # stand-in keeps the host's control groups untouched.
  run=(unshare --mount --propagation private -- bash -c "$launch" launch "$sandbox/cgroup" "$stamp"
    "$sandbox/config" "$tool" "$sandbox/args.bin")
fi

# VmHWM only grows: the last sample before the run ends is its peak.
sample_peak() {
  local key value
  while read -r key value _; do
    if [ "$key" = "VmHWM:" ] && [ "$value" -gt "$tool_kb" ]; then tool_kb=$value; fi
  done <"/proc/$child/status" 2>/dev/null || true
}

# One tool run; sets tool_us, tool_kb and tool_code. With "sample", the
# detached run's memory is read from /proc every 10 ms; otherwise it is left
# alone. Reading another process's status takes its memory-map lock, which
# the runner's clone and the scripts' exec need too: sampled runs were about
# a tenth slower, so timed runs are not sampled. Their end is the exit-code
# file's modification time, which is when the code was written, so waiting
# for it can be lazy without blurring the figure.
tool_run() {
  local sample=${1:-}
  rm -rf "$sandbox/results" "$sandbox/tool.log"
  mkdir -p "$sandbox/results"
  child=""
  tool_kb=0
  local start exitfile="" name deadline interval=0.1
  [ -z "$sample" ] || interval=0.01
  "${run[@]}" || { echo "job_throughput: the tool's first process failed" >&2; return 1; }
  start=$(<"$stamp")
  for name in "$sandbox"/results/.*.exit; do if [ -e "$name" ]; then exitfile=$name; fi; done
  [ -n "$exitfile" ] || { echo "job_throughput: no exit-code file" >&2; return 1; }
  child=${exitfile%.exit}
  child=${child##*.}
  deadline=$((SECONDS + 600))
  while [ ! -s "$exitfile" ]; do
    [ -z "$sample" ] || sample_peak
    [ "$SECONDS" -lt "$deadline" ] || { echo "job_throughput: the job did not finish" >&2; return 1; }
    pause "$interval"
  done
  local written
  written=$(stat -c %.6Y "$exitfile")
  tool_us=$((${written/./} - start))
  # The run may still be on its way out: one more look at its peak.
  [ -z "$sample" ] || sample_peak
  tool_code=$(<"$exitfile")
}

# Every run must have deployed the whole job and ended with 0.
check_run() {
  local ran
  ran=$(grep -c 'Executing deployment command: ' "$sandbox/tool.log" || true)
  if [ "$ran" -ne "$packages" ] || [ "$tool_code" != 0 ]; then
    echo "job_throughput: $ran of $packages packages ran, exit code '$tool_code'; log:" >&2
    tail -5 "$sandbox/tool.log" >&2
    exit 1
  fi
}

# The same script, run the same number of times by a bare loop; sets loop_us.
# Each run of the script writes an output file of its own, created afresh, as
# each package's does in the tool, which removes the one before: rewriting a
# file in place costs ext4 a flush at close (about 0.3 ms here) that creating
# one does not, and the loop must not pay for what the tool does not.
loop_run() {
  local start window=$((EPOCHSECONDS + 36000))
  rm -rf "$sandbox/loop"
  mkdir "$sandbox/loop"
  start=${EPOCHREALTIME/./}
  sh -c 'i=0; while [ $i -lt "$1" ]; do i=$((i + 1)); "$2" "package-$i" "$3/output-$i.json" "$4"; done' sh \
    "$packages" "$script" "$sandbox/loop" "$window"
  loop_us=$((${EPOCHREALTIME/./} - start))
}

seconds() { awk -v us="$1" 'BEGIN { printf "%.3f", us / 1e6 }'; }

# Each run pairs one tool run with one loop run under about the same load;
# the median of the pairs' ratios is the figure checked against the goal, as
# the best times of each side may come from calmer moments of a shared machine.
best_tool=0 best_loop=0 ratios=()
for ((r = 1; r <= repeat; ++r)); do
  tool_run
  check_run
  loop_run
  ratios+=($((tool_us * 1000 / loop_us)))
  echo "run $r: tool $(seconds "$tool_us") s, loop $(seconds "$loop_us") s"
  if [ "$best_tool" -eq 0 ] || [ "$tool_us" -lt "$best_tool" ]; then best_tool=$tool_us; fi
  if [ "$best_loop" -eq 0 ] || [ "$loop_us" -lt "$best_loop" ]; then best_loop=$loop_us; fi
done
tool_run sample
check_run
peak=$tool_kb
echo "memory run: tool $(seconds "$tool_us") s while sampled, peak $peak kB"
echo "job of $packages packages ($patches patches x $perPatch), $repeat runs, tool exit code $tool_code"
# One line per goal: the figure, the goal and the verdict, judged on the
# figure as printed.
goal() {
  awk -v what="$1" -v figure="$2" -v goal="$3" -v decimals="$4" 'BEGIN {
    shown = sprintf("%.*f", decimals, figure)
    printf "%s: %s, goal <= %.*f, %s\n", what, shown, decimals, goal, (shown + 0 <= goal + 0 ? "met" : "missed") }'
}
if [ "$repeat" -gt 0 ]; then
  median=$(printf '%s\n' "${ratios[@]}" | sort -n | awk '{ v[NR] = $1 } END { print v[int((NR + 1) / 2)] }')
  echo "tool (start to exit-code file), best: $(seconds "$best_tool") s; shell loop, same script, best: $(seconds "$best_loop") s"
  goal "job of $packages packages through the tool against a shell loop of the same script, median ratio" \
    "$(awk -v m="$median" 'BEGIN { print m / 1000 }')" 1.05 2
fi
goal "peak resident memory of the detached run in MB" "$(awk -v kb="$peak" 'BEGIN { print kb / 1024 }')" \
  "$memoryGoal" 1
