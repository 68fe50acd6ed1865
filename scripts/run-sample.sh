#!/usr/bin/env bash
# Builds Mendwell and shows it at work on the sample data (scripts/make-sample.sh):
# a command-line repair run as root for the console user "anna" inside a
# throw-away sandbox, then what went to anna's Trash as trash-cli lists it and
# the log of that run, and a second repair that finds the permissions correct.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
bash scripts/setup-tests.sh
# Only the bundle and its tools: the test command builds the tests into the same tree.
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMENDWELL_BUILD_TESTS=OFF -DMENDWELL_UNITY_BUILD=ON
cmake --build build

sandbox=$(mktemp -d /tmp/mendwell-sample-XXXXXX)
trap 'rm -rf "$sandbox"' EXIT
chmod 755 "$sandbox"
mkdir -p "$sandbox/Users" "$sandbox/Library" "$sandbox/Applications" "$sandbox/root"
bash scripts/make-sample.sh "$sandbox"
cp -a build/Mendwell.app "$sandbox/Applications/"

binds=()
for entry in /*; do
  name=${entry#/}
  case "$name" in Users|Library|Applications|root|proc|dev|sys) continue ;; esac
  if [ -L "$entry" ]; then binds+=(--symlink "$(readlink "$entry")" "$entry")
  elif [ -d "$entry" ]; then binds+=(--bind "$entry" "$entry")
  else binds+=(--ro-bind "$entry" "$entry"); fi
done
# No desktop seat inside: the console user is the one sudo names.
[ -d /run/systemd/seats ] && binds+=(--tmpfs /run/systemd/seats)
in_sandbox() {
  bwrap "${binds[@]}" --ro-bind /sys /sys \
    --bind "$sandbox/Users" /Users --bind "$sandbox/Library" /Library --bind "$sandbox/Applications" /Applications \
    --bind "$sandbox/root" /root \
    --proc /proc --dev-bind /dev /dev --unshare-pid --die-with-parent \
    --clearenv --setenv PATH /usr/bin:/bin:/usr/sbin:/sbin --setenv SUDO_USER anna --setenv LC_ALL C.UTF-8 \
    --setenv HOME /root "$@"
}
repair() {
  echo
  echo "== In the sandbox, as root for console user anna: Mendwell $*"
  in_sandbox /Applications/Mendwell.app/Contents/MacOS/Mendwell "$@" 2>&1 | sed 's/^[0-9-]* [0-9:.]* //'
}

repair -repair -trash
echo
echo "== anna's Trash (trash-list, as anna)"
in_sandbox --setenv HOME /Users/anna setpriv --reuid=anna --regid=anna --init-groups -- trash-list | sort -k3
echo
echo "== The log of that run: /Library/Logs/Lanternfish/Mendwell.task.1.log"
cat "$sandbox/Library/Logs/Lanternfish/Mendwell.task.1.log"
repair -repair
