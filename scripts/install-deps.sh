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
  postgresql libpq-dev               # the collector's shared store, and the server the tests start
  libgtest-dev libgmock-dev googletest libbenchmark-dev
  libcairo2-dev                      # the simulated device draws its views
  libwebp-dev libpng-dev libjpeg62-turbo-dev  # image encoding, and its fallback
  libxxhash-dev                      # hashing pixels (header only)
  chromium                           # the browser tests replay recordings in it, through playwright-core
)

missing=()
for p in "${debian_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
# Node.js and npm count as present when their commands are: a Node.js build from outside Debian carries npm
# itself and conflicts with Debian's npm package.
command -v node >/dev/null 2>&1 || missing+=(nodejs)
command -v npm >/dev/null 2>&1 || missing+=(npm)

if [ "${#missing[@]}" -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  sudo_cmd=()
  [ "$(id -u)" -ne 0 ] && sudo_cmd=(sudo)
  "${sudo_cmd[@]}" apt-get update -qq
  DEBIAN_FRONTEND=noninteractive "${sudo_cmd[@]}" apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# npm packages are pinned in package-lock.json; `npm ci` runs only when node_modules is missing or older than
# the lock file (npm writes node_modules/.package-lock.json at every install). No browser is downloaded: the
# browser tests drive Debian's chromium.
if [ -f "$here/package-lock.json" ]; then
  installed="$here/node_modules/.package-lock.json"
  if [ ! -f "$installed" ] || [ "$here/package-lock.json" -nt "$installed" ] || [ "$here/package.json" -nt "$installed" ]; then
    echo "install-deps: npm ci"
    (cd "$here" && PLAYWRIGHT_SKIP_BROWSER_DOWNLOAD=1 npm ci --no-audit --no-fund)
  fi
fi
