#!/usr/bin/env bash
# run-fuzz.sh TARGET CORPUS SECONDS: fuzzes TARGET for SECONDS, starting from
# a copy of the seed corpus (libFuzzer writes new inputs into its first
# directory, and the seeds in the tree must stay as they are).
set -euo pipefail
target=$1 corpus=$2 seconds=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/corpus"
cp -r "$corpus"/. "$work/corpus/" 2>/dev/null || true
cd "$work"
exec "$target" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -print_final_stats=1 "$work/corpus"
