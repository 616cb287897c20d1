#!/usr/bin/env bash
# Builds the agent and runs it against the stand-in management-plane relay
# (tools/mpa-relay) in the end-to-end sandbox: a private mount and network
# namespace in which the agent sees its fixed paths (/etc/orvane/...,
# 127.0.0.1:9002) while this machine's /etc, /opt, /tmp and network stay
# untouched. The host it sees is an Ubuntu host (uname and lsb_release are
# stand-ins; dpkg-query is this machine's own).
#
# The relay sends a short session and prints every request and answer:
# run a command, copy a file and run it, track software and ask its status,
# find missing packages, get the SSH host RSA key. Then the agent is stopped
# (SIGTERM stops its dispatcher, SIGINT ends the process) and the sandbox is
# removed. The agent's log is kept in build/default/run/agent.log.
#
#   scripts/run.sh              build, then run the session
#   scripts/run.sh --no-build   run with what is built
#   JOBS=N scripts/run.sh       build with N jobs (default: nproc)
#   RUN_DIR=DIR scripts/run.sh  keep the session's files in DIR (default:
#                               build/default/run); emptied first, and only
#                               if run.sh made it
#   BUILD_DIR=DIR scripts/run.sh  take the relay and the sandbox from DIR
#                               (default: build/default)
#
# To run an installed agent instead (as the package tests do):
#   --agent PATH         this agent binary
#   --config FILE        this dornConfig.ini instead of the session's own
#   --stop-helper PATH   stop the agent as its systemd unit does: PATH PID
#                        (the unit's ExecStop), then one SIGTERM (KillSignal)
#
# Needs root (namespaces and mounts); as another user it runs itself again
# through sudo. Exit code: that of the relay, 0 when every expected answer
# came and the wire layout was kept; 4 when the agent outlived the unit's stop.
set -euo pipefail
original_args=("$@")
caller=$PWD
cd "$(dirname "$0")/.."
root=$(pwd)
build="$root/build/default"
if [ -n "${BUILD_DIR:-}" ]; then
  case "$BUILD_DIR" in /*) build=$BUILD_DIR ;; *) build=$caller/$BUILD_DIR ;; esac
fi

build_first=1
agent="" config="" stop_helper=""
while [ $# -gt 0 ]; do
  case "$1" in
    --no-build) build_first=0 ;;
    --agent|--config|--stop-helper)
      [ $# -ge 2 ] || { echo "run.sh: $1 needs a path" >&2; exit 2; }
      path=$2
      case "$path" in /*) ;; *) path=$caller/$path ;; esac
      if [ "$1" = --config ]; then
        [ -f "$path" ] || { echo "run.sh: no file $path" >&2; exit 2; }
      else
        [ -f "$path" ] && [ -x "$path" ] || { echo "run.sh: $path is no executable file" >&2; exit 2; }
      fi
      case "$1" in
        --agent) agent=$path ;;
        --config) config=$path ;;
        *) stop_helper=$path ;;
      esac
      shift ;;
    -h|--help) sed -n '2,29p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    *) echo "run.sh: unknown argument $1" >&2; exit 2 ;;
  esac
  shift
done

if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then
    exec sudo JOBS="${JOBS:-}" RUN_DIR="${RUN_DIR:-}" BUILD_DIR="${BUILD_DIR:-}" \
      bash "$0" "${original_args[@]}"
  fi
  echo "run.sh: the sandbox needs root (namespaces and mounts); run it as root" >&2
  exit 1
fi

if [ "$build_first" = 1 ]; then
  echo "== build (preset default): dorn-host-agent, mpa-relay, zel-sandbox"
  cmake --preset default >/dev/null
  cmake --build --preset default -j "${JOBS:-$(nproc)}" \
    --target dorn-host-agent mpa-relay zel-sandbox
fi

find_binary() {
  local path
  path=$(find "$build" -name "$1" -type f -perm -u+x -not -path '*/CMakeFiles/*' 2>/dev/null | head -n 1)
  if [ -z "$path" ]; then
    echo "run.sh: $1 is not built in $build (run without --no-build)" >&2
    exit 1
  fi
  echo "$path"
}
[ -n "$agent" ] || agent=$(find_binary dorn-host-agent)
relay=$(find_binary mpa-relay)
sandbox=$(find_binary zel-sandbox)

work="$build/run"
if [ -n "${RUN_DIR:-}" ]; then
  case "$RUN_DIR" in /*) work=$RUN_DIR ;; *) work=$caller/$RUN_DIR ;; esac
fi
# Of a directory given by RUN_DIR, only one that run.sh made is emptied.
marker=.made-by-run.sh
if [ -n "${RUN_DIR:-}" ] && [ -e "$work" ] && [ ! -e "$work/$marker" ]; then
  if [ -d "$work" ] && [ -z "$(ls -A "$work")" ]; then
    :
  else
    echo "run.sh: $work exists and was not made by run.sh; not emptying it" >&2
    exit 2
  fi
fi
rm -rf "$work"
mkdir -p "$work/standins"
: > "$work/$marker"

# --- the host the agent sees ---------------------------------------------
fakes="$root/tests/fakes/hosts/ubuntu"
for tool in uname lsb_release; do
  if [ -x "$fakes/$tool" ]; then
    cp "$fakes/$tool" "$work/standins/$tool"
  fi
done
if [ ! -x "$work/standins/uname" ]; then
  cat > "$work/standins/uname" <<'EOF'
#!/bin/sh
# Stand-in: an Ubuntu 22.04 kernel.
case "$*" in
  "-s -r") echo "Linux 5.15.0-91-generic" ;;
  "-s") echo "Linux" ;;
  "-r") echo "5.15.0-91-generic" ;;
  *) echo "Linux ubuntu-host 5.15.0-91-generic #101-Ubuntu SMP x86_64 GNU/Linux" ;;
esac
EOF
fi
if [ ! -x "$work/standins/lsb_release" ]; then
  cat > "$work/standins/lsb_release" <<'EOF'
#!/bin/sh
# Stand-in: Ubuntu 22.04.
case "$*" in
  "-si"|"-is"|"-s -i"|"-i -s") echo "Ubuntu" ;;
  "-sr"|"-rs") echo "22.04" ;;
  *) printf 'Distributor ID:\tUbuntu\nRelease:\t22.04\nCodename:\tjammy\n' ;;
esac
EOF
fi
chmod 755 "$work/standins/"*

cat > "$work/dornConfig.ini" <<'EOF'
[CommunicationHandler]
ackTimeout=300
[Monitoring]
updateCheckFrequency=60
monitoringStartDelay=1
EOF
if [ -n "$config" ]; then cp "$config" "$work/dornConfig.ini"; fi

# A throw-away host key, so the agent never reads this machine's.
if command -v ssh-keygen >/dev/null 2>&1; then
  ssh-keygen -q -t rsa -b 2048 -N '' -C root@ubuntu-host -f "$work/ssh_host_rsa_key"
else
  echo "ssh-rsa AAAAB3NzaC1yc2EAAAADAQABAAABAQDdemoKeyForTheSandboxOnly root@ubuntu-host" \
    > "$work/ssh_host_rsa_key.pub"
fi

bash_version=$(dpkg-query -W -f='${Version}' bash 2>/dev/null || echo 5)

# --- the session ------------------------------------------------------------
cat > "$work/session.txt" <<EOF
# Run a command
message_type: MT_RUN_COMMAND
operation_id: "run-1"
dorn_fabric_object {
  fabric_object_identifier: "cmd-uname"
  runCommand { command: "uname -sr; lsb_release -si; id -un" }
}

# Copy an executable file
message_type: MT_FILE_COPY
operation_id: "copy-1"
dorn_fabric_object {
  fabric_object_identifier: "hello.sh"
  fileCopy {
    file: "/opt/dorn-demo/hello.sh"
    data: "#!/bin/sh\necho \"hello from the copied script\"\n"
    make_executable: true
  }
}

# Run the copied file
message_type: MT_RUN_COMMAND
operation_id: "run-2"
dorn_fabric_object {
  fabric_object_identifier: "cmd-hello"
  runCommand { command: "/opt/dorn-demo/hello.sh && stat -c '%a %n' /opt/dorn-demo/hello.sh" }
}

# Track software: bash at its version, coreutils at 1.0, one package not installed
message_type: MT_INIT
operation_id: "track-1"
dorn_fabric_object { software { name: "bash" version: "$bash_version" } }
dorn_fabric_object { software { name: "coreutils" version: "1.0" } }
dorn_fabric_object { software { name: "zel-demo-agent-plugin" version: "1.0" } }

# Ask how the tracked software stands (unmet packages are listed)
message_type: MT_SOFTWARE_STATUS
operation_id: "status-1"

# Find which of these packages are missing
message_type: MT_FIND_MISSING_PACKAGES_FROM_LIST
operation_id: "missing-1"
dorn_fabric_object { findMissingPackagesFromList { name: "bash" } }
dorn_fabric_object { findMissingPackagesFromList { name: "tar" } }
dorn_fabric_object { findMissingPackagesFromList { name: "zel-demo-agent-plugin" } }

# Get the SSH host RSA key
message_type: MT_GET_RSA_KEY
operation_id: "rsa-1"
EOF

# Inside the sandbox: the relay first, the agent once the relay listens, and
# after the session the agent's documented stop.
cat > "$work/drive.sh" <<'EOF'
#!/bin/sh
relay=$1; agent=$2; session=$3; stop_helper=${4:-}
ready=/run/mpa-relay.ready
alive() { [ -r "/proc/$1/stat" ] && ! grep -q '^[0-9]* (.*) Z' "/proc/$1/stat" 2>/dev/null; }
await_exit() {  # pid, tenths of a second
  n=0
  while alive "$1" && [ "$n" -lt "$2" ]; do sleep 0.1; n=$((n + 1)); done
  ! alive "$1"
}

"$relay" --ready-file "$ready" --file "$session" --timeout 60 &
relay_pid=$!
n=0
while [ ! -s "$ready" ] && alive "$relay_pid" && [ "$n" -lt 100 ]; do sleep 0.05; n=$((n + 1)); done
if [ ! -s "$ready" ]; then
  wait "$relay_pid"; exit $?
fi

"$agent" &
agent_pid=$!
set +e
wait "$relay_pid"
rc=$?
echo "== session over (relay exit $rc); stopping the agent"
if [ -n "$stop_helper" ]; then
  # As systemd stops the unit: ExecStop, then KillSignal once.
  "$stop_helper" "$agent_pid"
  kill -TERM "$agent_pid" 2>/dev/null
  if await_exit "$agent_pid" 50; then
    echo "== agent ended by the unit's stop (ExecStop, then SIGTERM)"
  else
    echo "== agent still running after the unit's stop; SIGKILL"
    kill -KILL "$agent_pid" 2>/dev/null
    [ "$rc" -ne 0 ] || rc=4
  fi
else
  kill -TERM "$agent_pid" 2>/dev/null
  if await_exit "$agent_pid" 30; then
    echo "== agent ended on SIGTERM"
  else
    echo "== SIGTERM stopped the agent's dispatcher; SIGINT ends the process"
    kill -INT "$agent_pid" 2>/dev/null
    if ! await_exit "$agent_pid" 50; then
      echo "== agent still running; SIGKILL"
      kill -KILL "$agent_pid" 2>/dev/null
    fi
  fi
fi
wait "$agent_pid" 2>/dev/null
exit "$rc"
EOF
chmod 755 "$work/drive.sh"

echo "== sandbox: relay on 127.0.0.1:9002, agent $agent"
set +e
"$sandbox" \
  --file /etc/orvane/zel-dorn/dornConfig.ini="$work/dornConfig.ini" \
  --file /etc/ssh/ssh_host_rsa_key.pub="$work/ssh_host_rsa_key.pub" \
  --standin "$work/standins/uname" \
  --standin "$work/standins/lsb_release" \
  --log-copy "$work/agent.log" \
  --timeout 120 \
  -- /bin/sh "$work/drive.sh" "$relay" "$agent" "$work/session.txt" "$stop_helper"
rc=$?
set -e

lines=$(wc -l < "$work/agent.log" 2>/dev/null || echo 0)
echo "== agent log: $lines lines in $work/agent.log; its warnings and errors:"
# Level, error tag and text of each record, without the syslog header.
grep -E 'level="(WARN|ERROR|CRIT)"' "$work/agent.log" 2>/dev/null | tail -n 15 |
  sed -E 's/^.*level="([A-Z]+)"( errorCode="([^"]*)")?\] /  \1 \3 /' | cut -c1-200 || true
if [ "$rc" -eq 0 ]; then
  echo "== done: every request was answered"
else
  echo "== done with exit code $rc (1: answers missing, 3: wire layout problems; see above)"
fi
exit "$rc"
