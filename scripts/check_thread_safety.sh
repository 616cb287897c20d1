#!/usr/bin/env bash
# Compile-only check of the lock annotations (cpp/lib/common/thread_annotations.h)
# with clang's -Wthread-safety, over every library source that includes
# cpp/lib/common/mutex.h. Uses the flags of a configured build tree's
# compile_commands.json (default: build/default), syntax only, so it takes
# seconds, not a build.
#
#   scripts/check_thread_safety.sh [build-dir]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/default}
db="$build/compile_commands.json"
[ -f "$db" ] || { echo "check_thread_safety: no $db; configure a preset first" >&2; exit 2; }

mapfile -t files < <(grep -rl --include='*.cpp' --include='*.h' 'cpp/lib/common/mutex.h' src |
  sed 's/\.h$/.cpp/' | sort -u | while read -r f; do [ -f "$f" ] && echo "$f"; done)
if [ ${#files[@]} -eq 0 ]; then echo "check_thread_safety: no sources use zel::Mutex"; exit 0; fi

python3 - "$db" "${files[@]}" <<'PY'
import json, os, shlex, subprocess, sys
db, files = sys.argv[1], sys.argv[2:]
commands = {os.path.realpath(e["file"]): e for e in json.load(open(db))}
failed = 0
for f in files:
    entry = commands.get(os.path.realpath(f))
    if entry is None:
        print(f"check_thread_safety: {f} is not in the build", file=sys.stderr)
        failed += 1
        continue
    args = shlex.split(entry["command"])
    # Keep include paths, definitions and the language standard; drop the
    # compiler, its launcher, outputs and gcc-only options.
    keep = [a for a in args if a.startswith(("-I", "-D", "-std=", "-isystem"))]
    for i, a in enumerate(args):
        if a == "-isystem":
            keep.append(a); keep.append(args[i + 1])
    cmd = ["clang++", "-fsyntax-only", "-Wthread-safety", "-Werror=thread-safety"] + keep + [entry["file"]]
    result = subprocess.run(cmd, cwd=entry["directory"], capture_output=True, text=True)
    if result.returncode != 0:
        failed += 1
        sys.stderr.write(result.stderr)
    print(f"{'ok  ' if result.returncode == 0 else 'FAIL'} {f}")
sys.exit(1 if failed else 0)
PY
