#!/usr/bin/env bash
# Runs .ci/run the way CI does, but on a minimal, freshly bootstrapped
# Debian 12 root, so that a missing install step shows up here rather than
# on a new CI machine.  Needs root; downloads only from the Debian mirror.
#
#   scripts/fresh-ci-check.sh             clone of the committed HEAD
#   scripts/fresh-ci-check.sh --worktree  HEAD plus the uncommitted files
#
# The bootstrapped root is kept in $FRESH_ROOT_CACHE (a pristine copy) so
# later runs skip the bootstrap; each run works on a throw-away copy.
set -euo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
overlay=0
[[ ${1:-} == --worktree ]] && overlay=1

cache=${FRESH_ROOT_CACHE:-/var/tmp/qel-fresh-bookworm}
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}

if [[ $(id -u) -ne 0 ]]; then
  echo "fresh-ci-check: needs root (chroot, mounts)" >&2
  exit 1
fi

if ! command -v debootstrap >/dev/null; then
  DEBIAN_FRONTEND=noninteractive apt-get update -q </dev/null
  DEBIAN_FRONTEND=noninteractive apt-get install -y -q --no-install-recommends debootstrap </dev/null
fi

if [[ ! -x $cache/bin/bash ]]; then
  rm -rf "$cache.tmp"
  debootstrap --variant=minbase bookworm "$cache.tmp" "$mirror"
  mv "$cache.tmp" "$cache"
fi

work=$(mktemp -d /var/tmp/qel-fresh-run.XXXXXX)
root=$work/root
mounted=()
cleanup() {
  local i
  for (( i=${#mounted[@]}-1; i>=0; i-- )); do umount -l "${mounted[$i]}" 2>/dev/null || true; done
  rm -rf "$work"
}
trap cleanup EXIT

cp -a "$cache" "$root"
git clone -q "$repo" "$root/src"
if (( overlay )); then
  # Uncommitted additions and changes; files deleted in the work tree are
  # removed from the copy too.
  while IFS= read -r -d '' f; do
    if [[ -e $repo/$f ]]; then
      mkdir -p "$root/src/$(dirname "$f")"
      cp -a "$repo/$f" "$root/src/$f"
    else
      rm -f "$root/src/$f"
    fi
  done < <(cd "$repo" && git ls-files --others --modified --deduplicate --exclude-standard -z)
fi

# The root must be a mount point of its own, as on a real machine (tests
# that make "/" private in a new mount namespace rely on it).
mount --bind "$root" "$root";    mounted+=("$root")
mount -t proc proc "$root/proc"; mounted+=("$root/proc")
mount --bind /dev "$root/dev";   mounted+=("$root/dev")
mount -t sysfs sys "$root/sys";  mounted+=("$root/sys")

start=$SECONDS
set +e
chroot "$root" /usr/bin/env -i \
  PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
  HOME=/root LANG=C.UTF-8 CI=true \
  bash -c 'cd /src && bash .ci/run' </dev/null
rc=$?
set -e
echo "fresh-ci-check: .ci/run exited $rc after $((SECONDS - start)) s"
exit $rc
