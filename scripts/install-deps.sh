#!/usr/bin/env bash
# Installs the Debian packages Mendwell needs. Idempotent.
#   install-deps.sh        what building Mendwell and the sample run need
#   install-deps.sh tests  that, and what the tests and benchmarks need besides
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config
  qt6-base-dev qt6-tools-dev libqt6opengl6-dev libqt6uitools6 libqt6dbus6 libqt6network6
  libplist-dev libssl-dev libarchive-dev libxkbcommon-dev libsystemd-dev
  libxkbcommon-x11-dev libxcb1-dev libxcb-xkb-dev
  libpolkit-agent-1-dev libpolkit-gobject-1-dev
  bubblewrap util-linux passwd policykit-1 trash-cli ca-certificates xdg-utils
)
if [ "${1:-}" = tests ]; then
  packages+=(
    clang-format libgtest-dev libgmock-dev libspdlog-dev
    mount e2fsprogs dbus dbus-x11 xvfb xauth x11-apps x11-xkb-utils imagemagick xdotool
    dunst libnotify-bin unzip zip libglib2.0-bin time
  )
fi

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
