#!/usr/bin/env bash
# Makes the Debian packages of a build and looks into them: names, dependencies, and where the files would go.
#
#   debian.sh BUILD CPACK VERSION SOVERSION

set -euo pipefail
build=$1 cpack=$2 version=$3 soversion=$4
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$scratch" >"$scratch/log" 2>&1 || { cat "$scratch/log"; exit 1; }

# the_package NAME prints the file of the one package of that name and this version.
the_package() {
  local found=("$scratch/$1_$version"_*.deb)
  [ -e "${found[0]}" ] || { echo "there is no package $1 of version $version: $(ls "$scratch")" >&2; exit 1; }
  echo "${found[0]}"
}

# holds PACKAGE PATTERN... fails unless each pattern matches a path in the package.
holds() {
  local file paths pattern
  file=$(the_package "$1")
  shift
  paths=$(dpkg-deb -c "$file" | awk '{ print $6 }')
  for pattern in "$@"; do
    grep -qE "$pattern" <<<"$paths" || { printf '%s\n' "$paths"; echo "$file lacks $pattern"; exit 1; }
  done
}

# depends PACKAGE PATTERN fails unless the package depends on what the pattern matches.
depends() {
  dpkg-deb -f "$(the_package "$1")" Depends | grep -qE "$2" || { echo "$1 does not depend on $2"; exit 1; }
}

library=libvxlan-controller-client$soversion
holds "$library" "^./usr/lib/.*/?libVxlanControllerClient\.so\.$soversion$"
depends "$library" 'libstdc\+\+6'
holds libvxlan-controller-client-dev '^./usr/include/vxlan-controller-client/Kel/' \
  '/libVxlanControllerClient\.so$' '/VxlanControllerClientConfig\.cmake$' '/vxlan-controller-client\.pc$'
depends libvxlan-controller-client-dev "$library \(= $version\)"
depends libvxlan-controller-client-dev "libvxlan-hosts1 \(= $version\)"
holds libvxlan-controller-client-dev '^./usr/include/vxlan_hosts\.h$' '/libvxlan-hosts\.so$' '/VxlanHostsConfig\.cmake$' \
  '/vxlan-hosts\.pc$'
holds libvxlan-hosts1 '^./usr/lib/.*/?libvxlan-hosts\.so\.1$'
depends libvxlan-hosts1 'libstdc\+\+6'
holds python3-vxlan-hosts '^./usr/lib/python3/dist-packages/vxlan_hosts\.py$'
depends python3-vxlan-hosts "libvxlan-hosts1 \(= $version\)"
holds vxlan-agent '^./usr/bin/vxlan-agent$' '^./usr/bin/vxlanctl$' '^./usr/bin/ringlog$' '^./usr/bin/memtab$' \
  '^./usr/share/man/man8/vxlan-agent\.8$' '^./usr/lib/systemd/system/vxlan-agent\.service$' \
  '^./usr/lib/sysusers\.d/vxlan-agent\.conf$' '^./etc/vxlan-agent/vxlan-agent\.conf$' '/completions/vxlanctl$'
depends vxlan-agent "$library \(= $version\)"

# The operator's configuration survives an upgrade, and the user that the service runs as is made.
dpkg-deb -e "$(the_package vxlan-agent)" "$scratch/control"
grep -qx /etc/vxlan-agent/vxlan-agent.conf "$scratch/control/conffiles" || { echo "no conffile"; exit 1; }
grep -q systemd-sysusers "$scratch/control/postinst" || { echo "nothing makes the user"; exit 1; }
dpkg-deb -e "$(the_package "$library")" "$scratch/library"
grep -q ldconfig "$scratch/library/postinst" || { echo "the loader is not told of the library"; exit 1; }
