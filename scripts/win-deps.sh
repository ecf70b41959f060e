#!/usr/bin/env bash
# Static libogg, libopus and libopusfile for the Windows build: Debian ships
# no mingw-w64 Opus, so this fetches Debian 12's source packages and
# cross-builds them for x86_64-w64-mingw32 into a prefix (default
# build-win/deps). Built once: later runs find the prefix and return at once.
#
# apt works from a private sources list and state directory, so the system's
# apt configuration is neither read nor changed; apt checks the Sources index
# against the Debian archive key and every downloaded file against the index.
#
# Usage: scripts/win-deps.sh [prefix]      JOBS=n limits the parallel build.
set -euo pipefail
cd "$(dirname "$0")/.."

prefix=$(realpath -m "${1:-build-win/deps}")
host=x86_64-w64-mingw32
stamp=$prefix/.complete
# Raised whenever the way the libraries are built changes, so that a stale
# prefix is built again.
recipe="recipe 2"
[ -f "$stamp" ] && [ "$(head -n 1 "$stamp")" = "$recipe" ] && exit 0

fail() {
  echo "scripts/win-deps.sh: $*" >&2
  exit 1
}
keyring=/usr/share/keyrings/debian-archive-keyring.gpg
[ -f "$keyring" ] || fail "$keyring is missing (package debian-archive-keyring)"
cc=$(command -v $host-gcc-posix || command -v $host-gcc) || fail "no $host-gcc (scripts/deps.sh windows installs it)"
for tool in make dpkg-source pkg-config; do
  command -v $tool >/dev/null || fail "$tool is missing (scripts/deps.sh windows installs it)"
done

work=$prefix.work
rm -rf "$work" "$prefix"
mkdir -p "$work"/apt/{lists/partial,cache/archives/partial,parts} "$work/src"
echo "deb-src [signed-by=$keyring] http://deb.debian.org/debian bookworm main" >"$work/apt/sources.list"
apt=(apt-get -q -o "Dir::Etc::SourceList=$work/apt/sources.list" -o "Dir::Etc::SourceParts=$work/apt/parts"
     -o "Dir::State::Lists=$work/apt/lists" -o "Dir::Cache=$work/apt/cache")
# As root apt would hand the downloads to its _apt user, who may not reach
# this directory.
[ "$(id -u)" -eq 0 ] && apt+=(-o APT::Sandbox::User=root)

echo "Fetching the libogg, opus and opusfile sources of Debian 12 for the Windows build"
"${apt[@]}" --error-on=any update >"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log" >&2; fail "could not read the Debian 12 source index from deb.debian.org"; }
(cd "$work/src" && "${apt[@]}" source --download-only libogg opus opusfile) >>"$work/apt.log" 2>&1 ||
  { cat "$work/apt.log" >&2; fail "could not download the libogg, opus and opusfile source packages"; }

# dpkg-source checks every file against the .dsc and applies Debian's patches
# (its signature warning is expected: apt has already verified the .dsc).
for name in libogg opus opusfile; do
  dsc=$(ls "$work/src/${name}"_*.dsc)
  (cd "$work/src" && dpkg-source -q -x "$dsc" "$name") >>"$work/apt.log" 2>&1 ||
    { cat "$work/apt.log" >&2; fail "could not unpack $dsc"; }
done

jobs=${JOBS:-$(nproc)}
build() {
  local name=$1
  shift
  echo "Building $name for $host"
  (cd "$work/src/$name" &&
   ./configure --host=$host --prefix="$prefix" --enable-static --disable-shared CC="$cc" CFLAGS="-O2" "$@" &&
   make -j "$jobs" && make install) >"$work/$name.log" 2>&1 ||
    { tail -40 "$work/$name.log" >&2; fail "building $name failed (log: $work/$name.log)"; }
}
export PKG_CONFIG_LIBDIR=$prefix/lib/pkgconfig PKG_CONFIG_PATH=
build libogg
# mingw's stack protector and fortified calls need libssp at link time: off
# (a _FORTIFY_SOURCE already defined keeps configure from adding its own).
build opus --disable-doc --disable-extra-programs --disable-stack-protector CPPFLAGS="-D_FORTIFY_SOURCE=0"
build opusfile --disable-http --disable-doc --disable-examples

for lib in ogg opus opusfile; do
  [ -f "$prefix/lib/lib$lib.a" ] || fail "$prefix/lib/lib$lib.a was not built"
done
{ echo "$recipe"; ls "$work/src"/*.dsc | xargs -n1 basename; } >"$stamp"
rm -rf "$work"
echo "Windows Opus libraries ready in $prefix"
