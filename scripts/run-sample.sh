#!/usr/bin/env bash
# Builds Mendwell and shows it at work on the shipped sample data: the help text,
# then a command-line repair run as root for the console user "anna" inside a
# throw-away sandbox, and the log that run wrote.
set -euo pipefail
cd "$(dirname "$0")/.."

bash scripts/install-deps.sh
bash scripts/setup-tests.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build build

app=build/Mendwell.app/Contents/MacOS/Mendwell
echo "== Mendwell -help"
"$app" -help

sandbox=$(mktemp -d /tmp/mendwell-sample-XXXXXX)
trap 'rm -rf "$sandbox"' EXIT
chmod 755 "$sandbox"
mkdir -p "$sandbox/Users/anna" "$sandbox/Library/Logs/Lanternfish" "$sandbox/Applications"
cp -a sample/Users/anna/. "$sandbox/Users/anna/"
chown -R anna:anna "$sandbox/Users/anna"
cp -a build/Mendwell.app "$sandbox/Applications/"

binds=()
for entry in /*; do
  name=${entry#/}
  case "$name" in Users|Library|Applications|proc|dev|sys) continue ;; esac
  if [ -L "$entry" ]; then binds+=(--symlink "$(readlink "$entry")" "$entry")
  elif [ -d "$entry" ]; then binds+=(--bind "$entry" "$entry")
  else binds+=(--ro-bind "$entry" "$entry"); fi
done
in_sandbox() {
  bwrap "${binds[@]}" --ro-bind /sys /sys \
    --bind "$sandbox/Users" /Users --bind "$sandbox/Library" /Library --bind "$sandbox/Applications" /Applications \
    --proc /proc --dev-bind /dev /dev --unshare-pid --die-with-parent \
    --clearenv --setenv PATH /usr/bin:/bin:/usr/sbin:/sbin --setenv SUDO_USER anna --setenv LC_ALL C.UTF-8 "$@"
}

echo
echo "== In the sandbox, as root for console user anna: Mendwell -repair"
in_sandbox /Applications/Mendwell.app/Contents/MacOS/Mendwell -repair
echo
echo "== Folders the run made in anna's home"
(cd "$sandbox" && find Users/anna/Library/Logs -printf '%M %u %p\n')
echo
echo "== /Library/Logs/Lanternfish/Mendwell.task.1.log"
cat "$sandbox/Library/Logs/Lanternfish/Mendwell.task.1.log"
