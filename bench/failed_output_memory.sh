#!/usr/bin/env bash
# Peak memory of a job whose 200 packages (one per patch) each fail after
# printing 5 MiB on both of their streams. Without letting go of the texts
# that the result size limit will empty, the run would hold about 2 GB by its
# end (goal: under 64 MB).
#   bench/failed_output_memory.sh <build dir>
exec env FAILING_OUTPUT_KIB=5120 PATCHES=200 PACKAGES_PER_PATCH=1 REPEAT=0 MEMORY_GOAL_MB=64 \
  "$(dirname "$0")/job_throughput.sh" "$@"
