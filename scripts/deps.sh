#!/usr/bin/env bash
# Installs the Debian 12 packages a build needs, only those that are missing.
# Usage: scripts/deps.sh run|test
set -euo pipefail
want=(build-essential cmake ninja-build pkg-config libsdl2-dev python3)
if [ "${1:-run}" = test ]; then
  want+=(libgtest-dev xvfb xauth x11-apps x11-utils xdotool)
fi
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
