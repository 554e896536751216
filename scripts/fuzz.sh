#!/usr/bin/env bash
# Runs one fuzz target for a while: scripts/fuzz.sh BUILD TARGET SECONDS [WORKDIR]
# New inputs go to WORKDIR (default BUILD/fuzz-work), never into the seed
# corpus. A crash leaves its input in WORKDIR/TARGET-artifacts; copy it into
# fuzz/regressions/TARGET so the unit tests replay it.
set -euo pipefail
build=$1 target=$2 seconds=$3
work=${4:-$build/fuzz-work}
source_dir=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$work/$target-corpus" "$work/$target-artifacts"
regressions="$source_dir/fuzz/regressions/$target"
dirs=("$work/$target-corpus" "$source_dir/fuzz/corpus/$target")
[ -d "$regressions" ] && dirs+=("$regressions")
exec "$build/fuzz/fuzz_$target" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="$work/$target-artifacts/" "${dirs[@]}"
