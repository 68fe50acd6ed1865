#!/usr/bin/env bash
# Installs Mendwell's polkit policy and the machine's Preferences folder. Usage:
#   install-policy.sh [BUNDLE [ACTIONS_FOLDER [ROOT]]]
# BUNDLE is the installed Mendwell.app (default /Applications/Mendwell.app); the
# policy names its Contents/MacOS/authtool, the one program the action allows.
# ACTIONS_FOLDER defaults to /usr/share/polkit-1/actions. ROOT (default /) holds
# the machine's folders: ROOT/Library/Preferences, where the settings of every
# user lie, is made root's and the administrators' group's, mode 0775, as macOS
# keeps it, so an administrator changes them as herself. Idempotent.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
bundle="${1:-/Applications/Mendwell.app}"
actions="${2:-/usr/share/polkit-1/actions}"
root="${3:-/}"
admins=root
for group in sudo wheel admin; do
  if getent group "$group" >/dev/null; then
    admins=$group
    break
  fi
done
[ -d "$root/Library" ] || install -d -o root -g root -m 0755 "$root/Library"
install -d -o root -g "$admins" -m 0775 "$root/Library/Preferences"
policy="${POLICY:-$here/../resources/com.lanternfish.mendwell.policy}"
[ -f "$policy" ] || policy="$bundle/Contents/Resources/com.lanternfish.mendwell.policy"
# The real path: pkexec compares the program it is given with this one.
[ -d "$bundle" ] && bundle="$(cd "$bundle" && pwd -P)"
runner="$bundle/Contents/MacOS/authtool"
mkdir -p "$actions"
target="$actions/com.lanternfish.mendwell.policy"
tmp="$(mktemp "$actions/.com.lanternfish.mendwell.policy.XXXXXX")"
sed "s|<annotate key=\"org.freedesktop.policykit.exec.path\">[^<]*</annotate>|<annotate key=\"org.freedesktop.policykit.exec.path\">$runner</annotate>|" \
  "$policy" >"$tmp"
chmod 644 "$tmp"
mv -f "$tmp" "$target"
