# shellcheck shell=bash
# What the reference deployment scripts (deploy-deb, deploy-rpm) share. Sourced
# by them, never run on its own.
#
# The patch tool runs a deployment script once per package as
#   SCRIPT PACKAGE OUTPUT_FILE WINDOW_END
# (WINDOW_END in seconds since the epoch) and reads the package's outcome from
# OUTPUT_FILE: {"customExitCode": C, "exitCode": N}, where C is 0 installed,
# 1 already installed at the same or a newer version, 2 not applicable, 3
# failed, 4 package manager locked, and N is the exit status of the package
# manager command that decided C (0 when the script decided without one, 2
# when it refused its arguments). Whatever standard error carries lands in the
# job's result document when the package fails, so that is where every
# diagnostic goes.
#
# Every process started costs milliseconds per package on a busy host, and a
# job may hold hundreds of packages: what bash can do itself, it does.
#
# Settings from the environment (the tool passes its own on):
#   ZELKOR_DEPLOY_LOCK_WAIT  seconds to wait for a package manager lock held by
#                            someone else (default 120), never past WINDOW_END

# The outcomes, named for the scripts that source this file.
# shellcheck disable=SC2034
readonly ZK_INSTALLED=0 ZK_ALREADY_INSTALLED=1 ZK_NOT_APPLICABLE=2 ZK_FAILED=3 ZK_LOCKED=4
# Lines of the package manager's own output passed on to the operator.
readonly ZK_TAIL_LINES=15

zk_name=deploy
zk_package=""
zk_output=""
zk_window=0
zk_time=0
# Standard output and standard error of the last zk_run, together.
zk_cmd_output=""
# The outcome written on every way out. It starts as a failure: a script that
# is killed, or that stops anywhere unplanned, leaves a failed package behind.
zk_result=$ZK_FAILED
zk_exit=1
zk_cleanup=()

zk_say() {
  printf '%s: %s\n' "$zk_name" "$*" >&2
}

# Sets zk_time to the current time in seconds since the epoch.
zk_now() {
  printf -v zk_time '%(%s)T' -1
}

# Replaces the output file atomically (temporary file, fsync, rename): the
# tool, or an agent reading after a crash, finds the earlier file or the whole
# new one, never a torn one.
zk_write_result() {
  local tmp="$zk_output.$$.tmp"
  if printf '{"customExitCode":%d,"exitCode":%d}' "$1" "$2" >"$tmp" && sync -- "$tmp" &&
    mv -f -- "$tmp" "$zk_output"; then
    return 0
  fi
  rm -f -- "$tmp"
  return 1
}

zk_on_exit() {
  zk_write_result "$zk_result" "$zk_exit" || zk_say "cannot write the result to $zk_output"
  [ ${#zk_cleanup[@]} -eq 0 ] || rm -rf -- "${zk_cleanup[@]}"
}

zk_on_signal() {
  zk_say "stopped by a signal while handling $zk_package"
  zk_result=$ZK_FAILED
  zk_exit=$1
  exit "$1"
}

# Ends the script with outcome $1, exit status $2 and, when given, a message.
zk_finish() {
  zk_result=$1
  zk_exit=$2
  [ $# -lt 3 ] || zk_say "$3"
  exit 0
}

# Checks the arguments, writes a failed result before anything else happens
# and sets the script up to run unattended. Call as: zk_start NAME "$@".
zk_start() {
  zk_name=$1
  shift
  if [ $# -ne 3 ] || [ -z "$2" ]; then
    zk_say "usage: $zk_name PACKAGE OUTPUT_FILE WINDOW_END"
    if [ $# -ge 2 ] && [ -n "$2" ]; then
      zk_output=$2
      zk_write_result "$ZK_FAILED" 2 || true
    fi
    exit 2
  fi
  zk_package=$1
  zk_output=$2
  # The placeholder is written in place: a torn or empty file reads as a
  # failed package to the tool as well.
  if ! printf '{"customExitCode":%d,"exitCode":%d}' "$ZK_FAILED" 1 >"$zk_output"; then
    zk_say "cannot write the result file $zk_output"
    exit 1
  fi
  trap zk_on_exit EXIT
  trap 'zk_on_signal 143' TERM
  trap 'zk_on_signal 130' INT
  trap 'zk_on_signal 129' HUP
  exec </dev/null
  export LC_ALL=C

  case "$3" in
    '' | *[!0-9]*) zk_finish "$ZK_FAILED" 2 "the window end '$3' is not a number of seconds" ;;
  esac
  zk_window=$3
  # A package argument is data, never an option of the package manager.
  case "$zk_package" in
    '') zk_finish "$ZK_FAILED" 2 "an empty package argument is refused" ;;
    -*) zk_finish "$ZK_FAILED" 2 "the package argument '$zk_package' begins with '-' and is refused" ;;
    *[[:cntrl:]]*) zk_finish "$ZK_FAILED" 2 "the package argument holds control characters and is refused" ;;
  esac
  zk_now
  if [ "$zk_time" -ge "$zk_window" ]; then
    zk_finish "$ZK_FAILED" 1 "the patch window is over (now $zk_time, window end $zk_window); $zk_package not installed"
  fi
}

# Sets the variable named $1 to a private file for the script's own use,
# removed on the way out.
zk_temp_file() {
  local file
  file=$(mktemp "${TMPDIR:-/tmp}/$zk_name.XXXXXX") || zk_finish "$ZK_FAILED" 1 "cannot create a temporary file"
  zk_cleanup+=("$file")
  printf -v "$1" '%s' "$file"
}

# Seconds that may be spent waiting for a lock: the configured wait, but never
# beyond the window end.
zk_lock_budget() {
  local wait=${ZELKOR_DEPLOY_LOCK_WAIT:-120} left
  case "$wait" in '' | *[!0-9]*) wait=120 ;; esac
  zk_now
  left=$((zk_window - zk_time))
  [ "$left" -gt 0 ] || left=0
  if [ "$wait" -lt "$left" ]; then echo "$wait"; else echo "$left"; fi
}

# Prints "FILE PID COMMAND" for the first of the given files on which some
# process holds a POSIX (fcntl) or open-file-description lock, as the
# kernel's lock table lists it; fails when none is held. dpkg, apt and rpm
# lock with fcntl, so this sees exactly the locks they would run into; a
# flock(2) lock is not one of them.
zk_lock_holder() {
  local existing=() file dev ino ids=() n=0 kind pid id comm
  for file in "$@"; do [ -e "$file" ] && existing+=("$file"); done
  [ ${#existing[@]} -gt 0 ] || return 1
  while read -r dev ino; do
    ids+=("$(printf '%02x:%02x:%s' $(((dev >> 8) & 0xfff)) $(((dev & 0xff) | ((dev >> 12) & 0xfff00))) "$ino")")
  done < <(stat -L -c '%d %i' -- "${existing[@]}" 2>/dev/null)
  while read -r _ kind _ _ pid id _; do
    [ "$kind" = POSIX ] || [ "$kind" = OFDLCK ] || continue
    for ((n = 0; n < ${#ids[@]}; ++n)); do
      if [ "$id" = "${ids[$n]}" ]; then
        comm='?'
        read -r comm <"/proc/$pid/comm" 2>/dev/null || true
        printf '%s %s %s\n' "${existing[$n]}" "$pid" "$comm"
        return 0
      fi
    done
  done </proc/locks
  return 1
}

# Waits until none of the lock files $2... is held, or until the time $1 (in
# seconds since the epoch) has come; fails when one is held still. Succeeds at
# once when the kernel's lock table shows no holder.
zk_wait_for_locks() {
  local deadline=$1 holder said=""
  shift
  while holder=$(zk_lock_holder "$@"); do
    read -r -a holder <<<"$holder"
    if [ -z "$said" ]; then
      said=1
      zk_say "${holder[0]} is locked by pid ${holder[1]} (${holder[2]}); waiting until $(date -d "@$deadline" '+%F %T')"
    fi
    zk_now
    if [ "$zk_time" -ge "$deadline" ]; then
      zk_say "${holder[0]} is still locked by pid ${holder[1]} (${holder[2]})"
      return 1
    fi
    sleep 0.2
  done
  [ -z "$said" ] || zk_say "the lock was released; going on"
  return 0
}

# Runs a package manager command; its standard output and standard error,
# together, are kept in zk_cmd_output. Returns its exit status.
zk_run() {
  local status=0
  zk_cmd_output=$("$@" 2>&1) || status=$?
  return "$status"
}

# Runs a package manager command like zk_run. When it fails and its output
# says that it met a lock (extended regular expression $1, case ignored), waits
# within zk_lock_budget for the lock files $2... to be free and runs it again.
# The command follows "--". Most runs meet no lock, so the lock table is read
# only after the package manager has found one.
zk_run_past_locks() {
  local words=$1 locks=() status deadline retried=""
  shift
  while [ "$1" != -- ]; do
    locks+=("$1")
    shift
  done
  shift
  deadline=$(zk_lock_budget)
  zk_now
  deadline=$((zk_time + deadline))
  while :; do
    status=0
    zk_run "$@" || status=$?
    zk_now
    if [ "$status" -eq 0 ] || ! zk_output_says "$words" || [ "$zk_time" -ge "$deadline" ]; then
      return "$status"
    fi
    if ! zk_lock_holder "${locks[@]}" >/dev/null; then
      # Held by someone this process cannot see (dnf's locks are files that
      # name their owner), or let go already: try again in a moment, still
      # within the budget.
      [ -n "$retried" ] || zk_say "the package manager reports a lock; trying again until $(date -d "@$deadline" '+%F %T')"
      retried=1
      sleep 1
    elif ! zk_wait_for_locks "$deadline" "${locks[@]}"; then
      return "$status"
    fi
  done
}

# Passes the last lines of the last command's output on to standard error,
# where the operator finds them in the result document.
zk_show_output() {
  local lines=() first
  [ -n "$zk_cmd_output" ] || return 0
  mapfile -t lines <<<"$zk_cmd_output"
  first=$((${#lines[@]} > ZK_TAIL_LINES ? ${#lines[@]} - ZK_TAIL_LINES : 0))
  local line
  for line in "${lines[@]:first}"; do printf '%s: | %s\n' "$zk_name" "$line"; done >&2
}

# Whether the last command's output matches the extended regular expression
# $1, case ignored.
zk_output_says() {
  local found=1
  shopt -s nocasematch
  [[ "$zk_cmd_output" =~ $1 ]] && found=0
  shopt -u nocasematch
  return "$found"
}
