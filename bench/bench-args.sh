# shellcheck shell=bash
# Sourced by the whole-process benchmarks (never run on its own): the tool they
# run, and the log configuration and the argument file of their job,
# "bench-job" run 1 of the manifest "bench-manifest", in a sandbox laid out as
# theirs are.
#
#   find_bench_tool NAME TOP BUILD
# sets `tool` to the tool built in BUILD, a directory taken relative to TOP
# unless it is absolute, and ends the benchmark NAME when the tool is missing.
find_bench_tool() {
  local name=$1 top=$2 build=$3
  case "$build" in /*) ;; *) build="$top/$build" ;; esac
  tool="$build/bin/zelkor-patchmgmt-tool"
  [ -x "$tool" ] || { echo "$name: $tool is missing" >&2; exit 1; }
}

#   write_bench_args TOP SANDBOX SCRIPT RECEIVED
# writes SANDBOX/args.bin (and its text form SANDBOX/args.txt) for a job whose
# deployment script is SCRIPT, received at RECEIVED (a result time), with TOP
# the source tree that holds the schema.
write_bench_args() {
  local top=$1 sandbox=$2 script=$3 received=$4
  cat >"$sandbox/args.txt" <<TXT
operationType: PATCH
patchArgs {
  vendorID: "bench-vendor"
  jobID: "bench-job"
  runID: 1
  manifestID: "bench-manifest"
  manifestDirectoryPath: "$sandbox/manifests"
  statusDBPath: "$sandbox/status.db"
  ahsMessageDir: "$sandbox/ahs"
  agentDetails { osName: "Debian GNU/Linux" osVersion: "12" architecture: "x86_64" agentVersion: "1.0.0" }
  resultDirectory: "$sandbox/results"
  interimResultOption { isInterimResultEnable: false interimResultDir: "$sandbox/interim" interimResultGenerateTimeInSeconds: 60 }
  deploymentScriptsPaths { deploymentScriptPath: "$script" }
  jobRecvTime: "$received"
}
TXT
  protoc --proto_path="$top/proto/patchcommandlineargs" \
    --encode=com.zelkor.patch.proto.CommandlineArguments patchcommandlineargs.proto \
    <"$sandbox/args.txt" >"$sandbox/args.bin"
}

#   write_bench_log_config SANDBOX
# writes SANDBOX/config/zagent-patchmgmt-log.conf: the tool logs to
# SANDBOX/tool.log at information level, as an installed agent runs it.
write_bench_log_config() {
  local sandbox=$1
  cat >"$sandbox/config/zagent-patchmgmt-log.conf" <<CONF
logging.formatters.plain.class = PatternFormatter
logging.formatters.plain.pattern = %p|%t
logging.channels.file.class = FileChannel
logging.channels.file.path = $sandbox/tool.log
logging.channels.file.formatter = plain
logging.loggers.tool.name = zelkor-patchmgmt-tool
logging.loggers.tool.channel = file
logging.loggers.tool.level = information
CONF
}
