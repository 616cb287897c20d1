#!/bin/sh
# The holder of an end-to-end sandbox: the process that owns its private mount
# and network namespaces. The sandbox library starts it as
#
#   unshare --mount --net -- /bin/sh hold.sh [KEEP_DIR...]
#
# with a pipe as standard input. It builds the sandbox's view of the file
# system, prints "ready", and holds the namespaces until that pipe closes (the
# library's teardown, or the death of the process that made the sandbox). It
# then kills every process left in the namespace and exits; the namespaces and
# every file written in the sandbox go with it.
#
# The view:
#   /etc /var /home /root /opt  overlays over the machine's directories; writes
#                               land in /run/zel-sandbox/layers
#   /run /tmp /dev              empty tmpfs; /dev with null, zero, full,
#                               random, urandom, tty; /var/run is /run
#   /run/zel-sandbox            bin/ (stand-ins, first on PATH), calls.log
#   everything else             the machine's own, read-only
# A KEEP_DIR under /tmp (a build or source tree in a throw-away clone) stays
# visible there, read-only.
set -eu

# Never mount anything in the machine's own mount namespace.
own=$(readlink /proc/self/ns/mnt)
case "$own" in mnt:*) ;; *) echo "error: no mount namespace to be seen"; exit 1 ;; esac
if [ "$own" = "$(readlink /proc/1/ns/mnt)" ] || [ "$own" = "$(readlink "/proc/$PPID/ns/mnt")" ]; then
  echo "error: not in a mount namespace of its own; refusing to mount anything"
  exit 1
fi
# Ctrl-C on the terminal must not skip the clean-up at the end.
trap '' INT QUIT HUP PIPE

mount -t tmpfs -o mode=0755,nosuid,nodev zel-sandbox /run
mkdir -p /run/lock /run/zel-sandbox/bin /run/zel-sandbox/layers /run/zel-sandbox/keep
chmod 1777 /run/lock
: > /run/zel-sandbox/calls.log
chmod 666 /run/zel-sandbox/calls.log

for d in etc var home root opt; do
  [ -d "/$d" ] || continue
  layer=/run/zel-sandbox/layers/$d
  mkdir -p "$layer/upper" "$layer/work"
  mount -t overlay zel-sandbox -o "lowerdir=/$d,upperdir=$layer/upper,workdir=$layer/work" "/$d"
done

# Park the trees to keep, hide the machine's /tmp, and put them back.
tops=""
for k in "$@"; do
  case "$k" in /tmp/?*) ;; *) continue ;; esac
  top=/tmp/$(echo "${k#/tmp/}" | cut -d/ -f1)
  [ -d "$top" ] || continue
  case " $tops " in *" $top "*) ;; *) tops="$tops $top" ;; esac
done
n=0
for top in $tops; do
  n=$((n + 1))
  mkdir -p "/run/zel-sandbox/keep/$n"
  mount --rbind "$top" "/run/zel-sandbox/keep/$n"
done
mount -t tmpfs -o mode=1777,nosuid,nodev zel-sandbox /tmp
n=0
for top in $tops; do
  n=$((n + 1))
  mkdir -p "$top"
  mount --move "/run/zel-sandbox/keep/$n" "$top"
  mount -o remount,bind,ro "$top"
done

mount -t tmpfs -o mode=0755,nosuid zel-sandbox /dev
mknod -m 666 /dev/null c 1 3
mknod -m 666 /dev/zero c 1 5
mknod -m 666 /dev/full c 1 7
mknod -m 666 /dev/random c 1 8
mknod -m 666 /dev/urandom c 1 9
mknod -m 666 /dev/tty c 5 0
ln -s /proc/self/fd /dev/fd
mkdir -m 1777 /dev/shm

ip link set lo up
mount -o remount,bind,ro /

echo ready
exec >/dev/null

cat >/dev/null || true

# Kill what is left in the namespace, until nothing is. The listing also
# names its own short-lived processes, which are gone by the time of the kill.
while :; do
  killed=0
  for pid in $(ls -l /proc/[0-9]*/ns/mnt 2>/dev/null |
      awk -v ns="$own" '$NF == ns { split($(NF - 2), p, "/"); print p[3] }'); do
    [ "$pid" != $$ ] && kill -KILL "$pid" 2>/dev/null && killed=1
  done
  [ $killed = 1 ] || break
done
