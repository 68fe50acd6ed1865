#!/usr/bin/env bash
# Runs a command inside a private mount namespace with its own system bus and
# polkit daemon. Usage (as root, from unshare --mount --propagation private):
#   polkit-namespace.sh WORK POLICY ADMIN -- COMMAND...
# WORK holds Users/, Applications/ and Library/ (this test's own), and receives
# polkitd.log. POLICY is added to polkit's actions; ADMIN is the one administrator
# identity polkit offers. COMMAND runs as root inside the new root.
set -euo pipefail
work=$1 policy=$2 admin=$3
shift 3
[ "${1:-}" = "--" ] && shift

root="$work/root"
mkdir -p "$root" "$work/actions" "$work/rules"
mount --make-rprivate /
mount -t tmpfs -o mode=755 tmpfs "$root"
own=" Users Applications Library proc dev sys run tmp "
for entry in /*; do
  name="${entry#/}"
  if [[ "$own" == *" $name "* ]]; then continue; fi
  if [ -L "$entry" ]; then
    ln -s "$(readlink "$entry")" "$root/$name"
  elif [ -d "$entry" ]; then
    mkdir "$root/$name"
    mount --bind "$entry" "$root/$name"
  fi
done
for name in proc dev sys run; do
  mkdir "$root/$name"
  mount --rbind "/$name" "$root/$name"
done
mkdir -m 1777 "$root/tmp"
mount --bind /tmp "$root/tmp"
for name in Users Applications Library; do
  mkdir -p "$work/$name" "$root/$name"
  mount --bind "$work/$name" "$root/$name"
done

# Our own system bus, and polkit reading our policy and our administrator rule.
mkdir -p "$root/run/dbus"
mount -t tmpfs -o mode=755 tmpfs "$root/run/dbus"
cp -a /usr/share/polkit-1/actions/. "$work/actions/"
# Installed the way a machine gets it, naming the bundle at /Applications.
POLICY="$policy" bash "$(dirname "$0")/../../scripts/install-policy.sh" /Applications/Mendwell.app "$work/actions" "$work"
mount --bind "$work/actions" "$root/usr/share/polkit-1/actions"
cat >"$work/rules/10-mendwell-test.rules" <<RULES
polkit.addAdminRule(function(action, subject) {
    return ["unix-user:$admin"];
});
polkit.addRule(function(action, subject) {
    polkit.log("mendwell-test: action " + action.id + " for " + subject.user);
});
RULES
chmod 755 "$work/rules"; chmod 644 "$work/rules/10-mendwell-test.rules"
mount --bind "$work/rules" "$root/etc/polkit-1/rules.d"

exec chroot "$root" /bin/bash -c '
  set -u
  work=$1; shift
  dbus-daemon --system --fork
  /usr/lib/polkit-1/polkitd </dev/null >"$work/polkitd.log" 2>&1 &
  polkitd=$!
  for _ in $(seq 200); do
    if dbus-send --system --print-reply --dest=org.freedesktop.DBus /org/freedesktop/DBus \
         org.freedesktop.DBus.NameHasOwner string:org.freedesktop.PolicyKit1 2>/dev/null | grep -q true; then
      break
    fi
    sleep 0.05
  done
  "$@"
  status=$?
  # The agent of this run only: a later run without one must not kill a stale pid.
  if [ -f "$work/agent/agent.pid" ]; then
    kill "$(cat "$work/agent/agent.pid")" 2>/dev/null
    rm -f "$work/agent/agent.pid"
  fi
  kill "$polkitd" 2>/dev/null
  kill "$(cat /run/dbus/pid)" 2>/dev/null
  exit $status
' polkit-namespace "$work" "$@"
