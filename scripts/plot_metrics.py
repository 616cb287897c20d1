#!/usr/bin/python3
"""Plots chosen metrics over time into a PNG.

Reads what the metrics pipeline writes: the JSON lines of
zel-metrics-collector --json, or the files of the text publisher
("[<UTC time>] METRICS <path> = <text>"). Each counter named with --counter
(a regular expression on the path, e.g. 'proc/self/status/vm/rss') gets a
panel of its own; every path it matches is a line there.

  scripts/plot_metrics.py --out soak.png --counter vm/rss --counter 'soak/step_time' \\
      collector.jsonl
  scripts/plot_metrics.py --out text.png --counter held_bytes --field value_last \\
      run/text/metrics_*.txt

--field picks the figure: value_last (the level of value counters, the
default) or a sample aggregate such as sample_avg or sample_p95 (latencies).
A path that has no such figure falls back to value_last, then sample_last.
Needs Debian's python3-matplotlib.
"""
import argparse
import datetime
import json
import re
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402

TEXT_LINE = re.compile(r"^\[([^\]]+)\] METRICS (\S+) = (.*)$")


def text_label(field):
    """The label of a field in a value's printed form: value_last -> v~last."""
    kind, _, name = field.partition("_")
    return {"value": "v~", "sample": "s~"}.get(kind, "") + name


def figure(values, field):
    for name in (field, "value_last", "sample_last"):
        if name in values:
            return values[name]
    return None


def read_json_lines(path, field, series):
    with open(path) as f:
        for line in f:
            line = line.strip()
            if not line.startswith("{"):
                continue
            report = json.loads(line)
            for name, values in report.get("values", {}).items():
                y = figure(values, field)
                if y is None or not values.get("timestamp"):
                    continue
                t = datetime.datetime.fromtimestamp(values["timestamp"] / 1000, datetime.timezone.utc)
                series.setdefault(name, []).append((t, y))


def read_text_file(path, field, series):
    labels = [text_label(f) for f in (field, "value_last", "sample_last")]
    with open(path) as f:
        for line in f:
            m = TEXT_LINE.match(line.rstrip("\n"))
            if not m:
                continue
            when, name, text = m.groups()
            parts = dict(p.split(": ", 1) for p in text.split(", ") if ": " in p)
            y = next((float(parts[l]) for l in labels if l in parts), None)
            if y is None:
                continue
            t = datetime.datetime.strptime(when, "%Y-%m-%dT%H:%M:%S").replace(tzinfo=datetime.timezone.utc)
            series.setdefault(name, []).append((t, y))


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("files", nargs="+", help="collector JSON lines or text publisher files")
    parser.add_argument("--counter", action="append", required=True, help="regular expression on the path")
    parser.add_argument("--field", default="value_last", help="value_last, sample_avg, sample_p95, ...")
    parser.add_argument("--out", required=True, help="the PNG to write")
    parser.add_argument("--title", default="", help="title above the panels")
    args = parser.parse_args(argv)

    series = {}
    for path in args.files:
        with open(path) as f:
            first = f.readline()
        if first.lstrip().startswith("{"):
            read_json_lines(path, args.field, series)
        else:
            read_text_file(path, args.field, series)

    panels = []
    for pattern in args.counter:
        names = sorted(n for n in series if re.search(pattern, n))
        if not names:
            print("plot_metrics: nothing matches %r" % pattern, file=sys.stderr)
            return 1
        panels.append((pattern, names))

    fig, axes = plt.subplots(len(panels), 1, sharex=True, figsize=(10, 2.6 * len(panels)), squeeze=False)
    for ax, (pattern, names) in zip(axes[:, 0], panels):
        for name in names:
            points = sorted(series[name])
            ax.plot([p[0] for p in points], [p[1] for p in points], label=name, linewidth=1.2)
        ax.set_title(pattern, fontsize=9, loc="left")
        ax.grid(True, alpha=0.3)
        ax.legend(fontsize=7, loc="upper left")
    axes[-1, 0].set_xlabel("time (UTC)")
    if args.title:
        fig.suptitle(args.title)
    fig.autofmt_xdate()
    fig.tight_layout()
    fig.savefig(args.out, dpi=100)
    print("plot_metrics: wrote %s (%d panels, %d series)" % (args.out, len(panels), sum(len(n) for _, n in panels)))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
