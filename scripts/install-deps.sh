#!/usr/bin/env bash
# Installs every Debian and npm package the project builds, tests and benchmarks with.
# Safe to run any number of times: it asks apt only for what is missing.
set -euo pipefail

here=$(cd "$(dirname "$0")/.." && pwd)

debian_packages=(
  build-essential cmake ninja-build pkg-config
  clang-16 libclang-rt-16-dev        # libFuzzer targets
  clang-format
  zlib1g-dev rapidjson-dev
  libcurl4-openssl-dev               # the HTTP transport
  libcpp-httplib-dev libsqlite3-dev libssl-dev  # the collector and the tests' HTTP servers
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libcairo2-dev                      # the simulated device draws its views
)

missing=()
for p in "${debian_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# npm packages are pinned in package.json and installed only when that file has changed.
if [ -f "$here/package.json" ]; then
  stamp="$here/node_modules/.install-stamp"
  if [ ! -f "$stamp" ] || [ "$here/package.json" -nt "$stamp" ] || [ "$here/package-lock.json" -nt "$stamp" ]; then
    (cd "$here" && if [ -f package-lock.json ]; then npm ci --no-audit --no-fund; else npm install --no-audit --no-fund; fi)
    touch "$stamp"
  fi
fi
