#!/usr/bin/env bash
# Installs a build into an empty prefix and uses it from outside, as somebody would who has nothing else: once by
# find_package, once by pkg-config. The consumer includes every installed header, so that a header which needs
# another that is not installed is found out, and names every public member of every exported class, so that one
# that does not link is.
#
#   install.sh BUILD COMPILER CMAKE VERSION SOVERSION

set -euo pipefail
build=$1 compiler=$2 cmake=$3 version=$4 soversion=$5
here=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
prefix=$scratch/prefix
unset CMAKE_CXX_COMPILER_LAUNCHER

"$cmake" --install "$build" --prefix "$prefix" >"$scratch/install.log" || { cat "$scratch/install.log"; exit 1; }

library=$(find "$prefix" -name libVxlanControllerClient.so)
[ -n "$library" ] || { echo "no libVxlanControllerClient.so is installed"; exit 1; }
soname=$(readelf -d "$library" | sed -n 's/.*SONAME.*\[\(.*\)\]/\1/p')
[ "$soname" = "libVxlanControllerClient.so.$soversion" ] || { echo "the soname is '$soname'"; exit 1; }

include=$prefix/include/vxlan-controller-client
[ -d "$include" ] || { echo "no header is installed"; exit 1; }
cp "$here/consumer/"* "$scratch"
(cd "$include" && find . -name '*.h' | sort | sed 's/^\.\/\(.*\)$/#include "\1"/') >"$scratch/everything.h"
echo "$(wc -l <"$scratch/everything.h") headers installed"

"$here/with_bindings.sh" "$here/members.py" "$include" >"$scratch/members.cpp"

echo "-- find_package"
"$cmake" -S "$scratch" -B "$scratch/cmake" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$compiler" \
  -DWANTED_VERSION="$version"
"$cmake" --build "$scratch/cmake"
"$scratch/cmake/consumer"

# The whole tree moves: neither way of finding the library may remember where it was put first.
mv "$prefix" "$scratch/moved"
echo "-- pkg-config"
library=$(find "$scratch/moved" -name libVxlanControllerClient.so)
export PKG_CONFIG_PATH=${library%/*}/pkgconfig
[ "$(pkg-config --modversion vxlan-controller-client)" = "$version" ] || { echo "another version than $version"; exit 1; }
read -ra flags <<<"$(pkg-config --cflags --libs vxlan-controller-client)"
"$compiler" -std=c++20 "$scratch/consumer.cpp" "$scratch/members.cpp" -o "$scratch/by-pkg-config" "${flags[@]}"
LD_LIBRARY_PATH=${library%/*} "$scratch/by-pkg-config"
