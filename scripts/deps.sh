#!/usr/bin/env bash
# Installs the Debian 12 packages a build needs, only those that are missing.
# Usage: scripts/deps.sh run|test|windows
set -euo pipefail
case "${1:-run}" in
  run) want=(build-essential cmake ninja-build pkg-config libsdl2-dev libcurl4-openssl-dev python3
             libopus-dev libogg-dev libopusfile-dev fluid-soundfont-gm) ;;
  test) want=(build-essential cmake ninja-build pkg-config libsdl2-dev libcurl4-openssl-dev python3
              libopus-dev libogg-dev libopusfile-dev fluid-soundfont-gm
              libgtest-dev xvfb xauth x11-apps x11-utils xdotool clang libclang-rt-14-dev tmux
              sox flac opus-tools) ;;
  windows) want=(cmake ninja-build python3 g++-mingw-w64-x86-64-posix wine wine64
                 xvfb x11-utils x11-apps xdotool make file pkg-config dpkg-dev debian-archive-keyring
                 sox flac opus-tools) ;;
  *) echo "usage: scripts/deps.sh run|test|windows" >&2; exit 2 ;;
esac
missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get update -qq
  $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
