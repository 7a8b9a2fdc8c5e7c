#!/usr/bin/env bash
# Installs the Debian packages the build and the tests need, and only those
# that are missing.  Does nothing (and touches no network) when all are
# present.
#
#   scripts/install-deps.sh            native build + tests
#   scripts/install-deps.sh aarch64    also the AArch64 cross toolchain,
#                                      the arm64 libraries and qemu-user
set -euo pipefail

want_cross=0
for arg in "$@"; do
  case "$arg" in
    aarch64|arm64|cross) want_cross=1 ;;
    native) ;;
    -h|--help) sed -n '2,9p' "$0"; exit 0 ;;
    *) echo "install-deps: unknown argument '$arg'" >&2; exit 2 ;;
  esac
done

native_pkgs=(
  cmake g++ make pkg-config file
  libmnl-dev libbpf-dev libelf-dev zlib1g-dev
  libboost-dev libboost-filesystem-dev libboost-system-dev
  nlohmann-json3-dev
  libgtest-dev libgmock-dev googletest
  iptables iproute2 util-linux
  clang-14 libclang-rt-14-dev llvm-14
  socat netcat-openbsd iputils-ping jq
)
cross_arch=arm64
cross_pkgs=(
  g++-aarch64-linux-gnu binutils-aarch64-linux-gnu qemu-user-static file
  "libmnl-dev:$cross_arch" "libbpf-dev:$cross_arch" "libelf-dev:$cross_arch"
  "zlib1g-dev:$cross_arch" "libboost-dev:$cross_arch"
  "libboost-filesystem-dev:$cross_arch" "libboost-system-dev:$cross_arch"
  "libgtest-dev:$cross_arch" "libgmock-dev:$cross_arch"
  # Headers only and architecture-independent: the one package serves both.
  nlohmann-json3-dev
)

native_arch=$(dpkg --print-architecture)

# is_installed NAME[:ARCH]
# Without an architecture, the package counts when it is installed for the
# native architecture or is architecture-independent (a foreign-arch copy
# of a multiarch library alone does not count).
is_installed() {
  local name=${1%%:*} arch=
  [[ $1 == *:* ]] && arch=${1#*:}
  local pkg_arch status
  while read -r pkg_arch status; do
    [[ $status == ii ]] || continue
    if [[ -n $arch ]]; then
      [[ $pkg_arch == "$arch" ]] && return 0
    else
      [[ $pkg_arch == "$native_arch" || $pkg_arch == all ]] && return 0
    fi
  done < <(dpkg-query -W -f='${Architecture} ${db:Status-Abbrev}\n' "$name" 2>/dev/null || true)
  return 1
}

pkgs=("${native_pkgs[@]}")
need_foreign_arch=0
if (( want_cross )); then
  pkgs+=("${cross_pkgs[@]}")
  if ! dpkg --print-foreign-architectures | grep -qx "$cross_arch"; then
    need_foreign_arch=1
  fi
fi

missing=()
declare -A seen=()
for p in "${pkgs[@]}"; do
  [[ -n ${seen[$p]:-} ]] && continue
  seen[$p]=1
  is_installed "$p" || missing+=("$p")
done

if (( ${#missing[@]} == 0 && need_foreign_arch == 0 )); then
  echo "install-deps: all packages present"
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  if command -v sudo >/dev/null 2>&1; then
    SUDO=(sudo -n)
  else
    echo "install-deps: missing packages and not root: ${missing[*]}" >&2
    exit 1
  fi
else
  SUDO=()
fi

export DEBIAN_FRONTEND=noninteractive
apt_opts=(-y -q -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=600
          -o Dpkg::Options::=--force-confdef -o Dpkg::Options::=--force-confold)

if (( need_foreign_arch )); then
  echo "install-deps: enabling the $cross_arch architecture"
  "${SUDO[@]}" dpkg --add-architecture "$cross_arch"
fi

echo "install-deps: installing ${missing[*]}"
"${SUDO[@]}" apt-get "${apt_opts[@]}" update </dev/null
"${SUDO[@]}" apt-get "${apt_opts[@]}" install --no-install-recommends "${missing[@]}" </dev/null

# Confirm: a package apt could not provide fails here, not later in cmake.
still=()
for p in "${missing[@]}"; do
  is_installed "$p" || still+=("$p")
done
if (( ${#still[@]} )); then
  echo "install-deps: still missing after install: ${still[*]}" >&2
  exit 1
fi
echo "install-deps: done"
