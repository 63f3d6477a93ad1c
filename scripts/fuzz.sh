#!/usr/bin/env bash
# Builds the libFuzzer targets with clang into build-fuzz (AddressSanitizer +
# UndefinedBehaviorSanitizer, the libraries instrumented as well) and runs
# each one for SECONDS (default 30) from an empty corpus and its dictionary.
# Any crash, leak, time-out or failed check fails the script; the input that
# caused it is kept in build-fuzz/fuzz/artifacts/.
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."

seconds="${1:-30}"
shift || true
build=build-fuzz

# Longest input per target, and its dictionary under fuzz/dict/.
declare -A max_len=(
  [fuzz_request]=8192 [fuzz_rt]=4096 [fuzz_topic]=1024 [fuzz_config]=4096
  [fuzz_signal_definitions]=4096)
declare -A dict=(
  [fuzz_request]=request [fuzz_rt]=rt [fuzz_topic]=topic [fuzz_config]=config
  [fuzz_signal_definitions]=signal_definitions)
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  targets=(fuzz_request fuzz_rt fuzz_topic fuzz_config fuzz_signal_definitions)
fi

# Debian's clang-14, libclang-rt-14-dev (libFuzzer, sanitizer runtimes) and
# llvm-14 (llvm-symbolizer, for readable reports).
compiler="$(command -v clang++-14 || command -v clang++ || true)"
if [ -z "${compiler}" ]; then
  echo "fuzz.sh needs clang++ (apt-get install clang-14 libclang-rt-14-dev llvm-14)" >&2
  exit 2
fi
if [ -x /usr/bin/llvm-symbolizer-14 ]; then
  export ASAN_SYMBOLIZER_PATH=/usr/bin/llvm-symbolizer-14
fi

echo "== fuzz: build (${build}, preset fuzz)"
cmake --preset fuzz -DCMAKE_CXX_COMPILER="${compiler}" >/dev/null
cmake --build --preset fuzz --target tokard_fuzz

export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
export ASAN_OPTIONS="detect_leaks=1:abort_on_error=1"
work="$(mktemp -d)"
trap 'rm -rf "${work}"' EXIT
artifacts="${build}/fuzz/artifacts"
mkdir -p "${artifacts}"

summary=()
passed=0
failed=0
for target in "${targets[@]}"; do
  if [ -z "${max_len[${target}]:-}" ]; then
    echo "unknown fuzz target ${target}" >&2
    exit 2
  fi
  corpus="${work}/${target}"
  mkdir -p "${corpus}"
  log="${work}/${target}.log"
  echo "== fuzz: ${target} for ${seconds} s"
  rc=0
  "${build}/fuzz/${target}" "${corpus}" \
    -max_total_time="${seconds}" -max_len="${max_len[${target}]}" \
    -dict="fuzz/dict/${dict[${target}]}.dict" -timeout=10 -rss_limit_mb=2048 \
    -print_final_stats=1 -artifact_prefix="${artifacts}/${target}-" >"${log}" 2>&1 || rc=$?

  # A run that dies early prints none of these.
  runs="$(sed -n 's/^stat::number_of_executed_units: *//p' "${log}" | tail -n 1)"
  rate="$(sed -n 's/^stat::average_exec_per_sec: *//p' "${log}" | tail -n 1)"
  cov="$( (grep -o 'cov: [0-9]*' "${log}" || true) | tail -n 1 | cut -d' ' -f2)"
  corp="$( (grep -o 'corp: [0-9]*' "${log}" || true) | tail -n 1 | cut -d' ' -f2)"
  line="$(printf '%-24s %10s runs %8s exec/s  cov %5s  corpus %5s' "${target}" \
    "${runs:-?}" "${rate:-?}" "${cov:-?}" "${corp:-?}")"
  if [ "${rc}" -eq 0 ]; then
    passed=$((passed + 1))
    line+="  ok"
  else
    failed=$((failed + 1))
    line+="  FINDING (exit ${rc})"
    echo "---- ${target}: last lines of the fuzzer's output"
    tail -n 80 "${log}"
    echo "---- reproduce with: ${build}/fuzz/${target} <input from ${artifacts}/>"
  fi
  echo "${line}"
  summary+=("${line}")
done

echo "== fuzz summary (${seconds} s per target)"
printf '%s\n' "${summary[@]}"
echo "fuzz: ${passed} passed, ${failed} failed"
[ "${failed}" -eq 0 ]
