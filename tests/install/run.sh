#!/usr/bin/env bash
# Installs a built tree into a temporary prefix and builds a host program against what was installed, as a
# host would: through find_package and through pkg-config. The program is the README's embedding example.
# Usage: run.sh <build dir> <source dir> <C++ compiler> <C compiler>
set -euo pipefail
build=$1 source=$2 cxx=$3 cc=$4

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix

cmake --install "$build" --prefix "$prefix" >/dev/null
# The first C++ block under "## Embedding it".
awk '/^## Embedding it/ {on = 1} on && /^```cpp/ {copy = 1; next} copy && /^```/ {exit} copy' \
  "$source/README.md" >"$work/main.cc"
[ -s "$work/main.cc" ] || { echo "no C++ example under '## Embedding it' in README.md" >&2; exit 1; }

# Every public header compiles on its own, from the installed folder only, without warnings.
echo "== public headers"
check='echo "#include <$2>" | "$0" -Wall -Wextra -Werror -fsyntax-only -I"$1" $3 -'
(cd "$prefix/include" && find verdalune -name '*.h') |
  xargs -P 2 -I{} sh -c "$check" "$cxx" "$prefix/include" {} "-std=c++23 -x c++"
sh -c "$check" "$cc" "$prefix/include" verdalune/session_replay_c.h "-std=c11 -x c"

echo "== find_package"
cmake -S "$source/tests/install/host" -B "$work/cmake" -G Ninja -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_PREFIX_PATH="$prefix" -DHOST_SOURCE="$work/main.cc" >/dev/null
cmake --build "$work/cmake"

echo "== pkg-config"
libdir=$(dirname "$(find "$prefix" -name verdalune_sessionreplay.pc)")
libdir=${libdir%/pkgconfig}
export PKG_CONFIG_PATH=$libdir/pkgconfig
"$cxx" -std=c++23 $(pkg-config --cflags verdalune_sessionreplay) -c "$work/main.cc" -o "$work/main.o"
"$cxx" "$work/main.o" -o "$work/host_pc_shared" $(pkg-config --libs verdalune_sessionreplay) -Wl,-rpath,"$libdir"
# Both libraries share a name; a host that wants the static one names its file, and --static adds what it links.
static_libs=$(pkg-config --static --libs verdalune_sessionreplay)
[[ " $static_libs " == *" -lverdalune_sessionreplay "* ]] || { echo "pkg-config --libs: $static_libs" >&2; exit 1; }
static_libs=" $static_libs "
"$cxx" "$work/main.o" -o "$work/host_pc_static" ${static_libs/-lverdalune_sessionreplay /-l:libverdalune_sessionreplay.a }
# A host that builds this tree with its own flags gets no -Werror, and the file g++ 12 once warned about at
# -O3 (a false "restrict" overlap) builds warning-free there.
echo "== a host's own flags"
cmake -S "$source" -B "$work/consumer" -G Ninja -DCMAKE_BUILD_TYPE=Release -DCMAKE_CXX_COMPILER="$cxx" \
  -DVDL_BUILD_TESTS=OFF -DVDL_BUILD_BENCH=OFF >/dev/null
if grep -q -- '-Werror' "$work/consumer/compile_commands.json"; then
  echo "a host's build of this tree turns warnings into errors" >&2
  exit 1
fi
"$cxx" -std=c++23 -O3 -Wall -Wextra -Werror -I"$source/src" -I"$source/include" -c "$source/src/upload/url.cc" \
  -o /dev/null
echo "install test: ok"
