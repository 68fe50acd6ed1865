#!/usr/bin/env bash
# Installs the Debian packages Mendwell builds, runs and tests with. Idempotent.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang-format
  qt6-base-dev qt6-tools-dev libqt6opengl6-dev libqt6uitools6 libqt6dbus6 libqt6network6
  libplist-dev libssl-dev libarchive-dev libxkbcommon-dev libsystemd-dev
  libpolkit-agent-1-dev libpolkit-gobject-1-dev
  libgtest-dev libgmock-dev
  bubblewrap util-linux mount e2fsprogs passwd dbus dbus-x11 xvfb xauth x11-apps imagemagick xdotool
  dunst libnotify-bin policykit-1 trash-cli unzip zip libglib2.0-bin
  libspdlog-dev ca-certificates xdg-utils
)

missing=()
for package in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
done
if [ ${#missing[@]} -gt 0 ]; then
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
