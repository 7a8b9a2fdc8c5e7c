#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/*_fuzz.cpp) with clang in build/fuzz and
# runs each for a bounded time on a scratch copy of its seed corpus
# (fuzz/corpus/<name>/). Exits non-zero on any finding: a crash, a sanitizer
# report, a broken invariant, a leak or a timeout. Inputs that fail are kept
# in build/fuzz/findings/<name>/; rerun one with
#   build/fuzz/fuzz/<name>_fuzz build/fuzz/findings/<name>/crash-...
#
#   scripts/run-fuzz.sh                      every target
#   scripts/run-fuzz.sh iptables_output_parser
#   FUZZ_SECONDS=600 scripts/run-fuzz.sh     longer runs (default 60 s each)
set -euo pipefail

cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-60}
build_dir=${FUZZ_BUILD_DIR:-build/fuzz}
jobs=${FUZZ_BUILD_JOBS:-2}
clang_version=14
clang_pkgs=("clang-$clang_version" "libclang-rt-$clang_version-dev" "llvm-$clang_version")

if ! [[ $seconds =~ ^[1-9][0-9]*$ ]]; then
  echo "run-fuzz: FUZZ_SECONDS must be a positive number of seconds, not '$seconds'" >&2
  exit 2
fi

is_installed() {
  [[ $(dpkg-query -W -f='${db:Status-Abbrev}' "$1" 2>/dev/null) == ii* ]]
}

install_missing_clang() {
  local missing=() p
  for p in "${clang_pkgs[@]}"; do
    is_installed "$p" || missing+=("$p")
  done
  (( ${#missing[@]} )) || return 0
  if [[ $(id -u) -ne 0 ]]; then
    echo "run-fuzz: missing packages and not root: ${missing[*]}" >&2
    exit 1
  fi
  echo "run-fuzz: installing ${missing[*]}"
  local apt_opts=(-y -q -o Dpkg::Use-Pty=0 -o DPkg::Lock::Timeout=600)
  DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" update </dev/null
  DEBIAN_FRONTEND=noninteractive apt-get "${apt_opts[@]}" install --no-install-recommends "${missing[@]}" </dev/null
}

all_targets() {
  local source
  for source in fuzz/*_fuzz.cpp; do
    source=${source##*/}
    echo "${source%_fuzz.cpp}"
  done
}

run_target() {
  local name=$1
  local binary=$build_dir/fuzz/${name}_fuzz
  local seeds=fuzz/corpus/$name
  local corpus=$build_dir/corpus/$name
  local findings=$build_dir/findings/$name
  # libFuzzer adds what it finds to the first corpus directory; the seeds in
  # the tree stay as they are.
  rm -rf "$corpus"
  mkdir -p "$corpus" "$findings"
  [[ -d $seeds ]] && cp -a "$seeds/." "$corpus/"
  echo "=== fuzzing $name for $seconds s ==="
  # The fuzzer's progress lines go to a log; a finding shows its tail.
  local log="$findings/fuzz.log"
  if ! "$binary" "$corpus" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 -max_len=8192 \
      -print_final_stats=1 -artifact_prefix="$findings/" >"$log" 2>&1; then
    tail -n 60 "$log"
    return 1
  fi
  grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$log" || true
}

# The configure step looks for the libraries of the whole tree.
bash scripts/install-deps.sh
install_missing_clang

if (( $# )); then targets=("$@"); else mapfile -t targets < <(all_targets); fi

CC=clang-$clang_version CXX=clang++-$clang_version cmake -S . -B "$build_dir" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQEL_FUZZ=ON -DQEL_BUILD_TESTS=OFF -DQEL_SANITIZE=OFF
cmake --build "$build_dir" -j "$jobs" --target "${targets[@]/%/_fuzz}"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
export ASAN_SYMBOLIZER_PATH=${ASAN_SYMBOLIZER_PATH:-$(command -v llvm-symbolizer-$clang_version || true)}

failed=()
for name in "${targets[@]}"; do
  run_target "$name" || failed+=("$name")
done
if (( ${#failed[@]} )); then
  echo "run-fuzz: findings in: ${failed[*]} (see $build_dir/findings/)" >&2
  exit 1
fi
echo "run-fuzz: ${#targets[@]} target(s) ran clean"
