#!/usr/bin/env bash
# Installs Mendwell's polkit policy. Usage:
#   install-policy.sh [BUNDLE [ACTIONS_FOLDER]]
# BUNDLE is the installed Mendwell.app (default /Applications/Mendwell.app); the
# policy names its Contents/MacOS/authtool, the one program the action allows.
# ACTIONS_FOLDER defaults to /usr/share/polkit-1/actions. Idempotent.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
bundle="${1:-/Applications/Mendwell.app}"
actions="${2:-/usr/share/polkit-1/actions}"
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
