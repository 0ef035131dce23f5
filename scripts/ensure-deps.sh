#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, when they are missing.
# As root it runs apt-get itself; otherwise it prints the one line to run.
set -eu
packages=(
  cmake make g++ g++-multilib pkg-config
  g++-mingw-w64-x86-64-posix g++-mingw-w64-i686-posix binutils-mingw-w64-x86-64 binutils-mingw-w64-i686
  wine wine64 xvfb xauth
  libgtest-dev libgmock-dev libbenchmark-dev
  clang libclang-rt-14-dev
  libopenimageio-dev openimageio-tools
  libdeflate-dev libspng-dev libisal-dev zlib1g-dev
  gimp libgimp2.0-dev
  imagemagick libvips-tools hyperfine
  go-md2man
)
missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0
line="apt-get install -y --no-install-recommends ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  echo "installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq >/dev/null 2>&1 || apt-get update
  apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null || apt-get install -y --no-install-recommends "${missing[@]}"
else
  echo "missing packages; run as root:"
  echo "  $line"
  exit 1
fi
