#!/usr/bin/env bash
# A soak run of the metrics pipeline, turned into a picture:
#
#   scripts/metrics_soak.sh [SECONDS] [PNG]     (default: 60, build/default/soak/metrics.png)
#
# Builds zel-metrics-collector and zel-metrics-soak, starts the collector on a
# Unix socket with JSON output, runs the soak for SECONDS (it reports every
# second through the RPC publisher and into text files), stops the collector,
# and plots memory, step time, held bytes and the report cycle's own cost
# with scripts/plot_metrics.py. Everything stays under build/default/soak/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
out_dir=$PWD/build/default/soak
png=${2:-$out_dir/metrics.png}

cmake --preset default >/dev/null
cmake --build --preset default --target zel-metrics-collector zel-metrics-soak >/dev/null
rm -rf "$out_dir"
mkdir -p "$out_dir/text"
socket="unix://$out_dir/collector.sock"

build/default/tools/zel-metrics-collector --listen "$socket" --json --ready-file "$out_dir/ready" \
  > "$out_dir/collector.jsonl" 2> "$out_dir/collector.log" &
collector=$!
trap 'kill "$collector" 2>/dev/null || true' EXIT
for _ in $(seq 100); do [ -s "$out_dir/ready" ] && break; sleep 0.05; done
[ -s "$out_dir/ready" ] || { echo "metrics_soak: the collector did not start" >&2; cat "$out_dir/collector.log" >&2; exit 1; }

echo "== soak: $seconds s, reports to $socket and $out_dir/text"
build/default/tools/zel-metrics-soak --collector "$socket" --text-dir "$out_dir/text" --seconds "$seconds"
kill "$collector"
wait "$collector" 2>/dev/null || true
trap - EXIT
echo "== $(wc -l < "$out_dir/collector.jsonl") reports received; $(ls "$out_dir/text" | wc -l) text files"

/usr/bin/python3 scripts/plot_metrics.py --out "$png" --title "zel-metrics-soak, ${seconds} s" \
  --field sample_avg \
  --counter 'proc/self/status/vm/(rss|hwm)$' \
  --counter 'soak/held_bytes$' \
  --counter 'soak/step_time$' \
  --counter 'metrics/(collect|report)/time$' \
  "$out_dir/collector.jsonl"
