#!/usr/bin/env bash
# One entry point for building, testing, benchmarking and the demo. See README.md.
set -euo pipefail

ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
JOBS="$(nproc 2>/dev/null || echo 2)"
PACKAGES=(build-essential cmake ninja-build ccache pkg-config git
          libcurl4-openssl-dev liburiparser-dev libutfcpp-dev libssl-dev openssl rapidjson-dev
          libgtest-dev libgmock-dev libbenchmark-dev libcpp-httplib-dev
          clang libclang-rt-14-dev tinyproxy locales
          curl nodejs node-busboy python3-multipart python3-urllib3)

log() { printf '\n==> %s\n' "$*"; }

deps() {
  local missing=()
  for p in "${PACKAGES[@]}" "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
  done
  if ((${#missing[@]})); then
    if [[ $(id -u) -ne 0 ]]; then
      echo "missing Debian packages: ${missing[*]} (run as root, or install them)" >&2
      exit 1
    fi
    log "installing ${missing[*]}"
    apt-get update
    DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
  fi
  # A Turkish locale lets the tests prove that header and URL handling ignores the process locale.
  if [[ $(id -u) -eq 0 ]] && ! locale -a 2>/dev/null | grep -qi '^tr_TR\.utf-\?8$'; then
    if [[ -f /etc/locale.gen ]]; then
      sed -i 's/^# *tr_TR.UTF-8 UTF-8/tr_TR.UTF-8 UTF-8/' /etc/locale.gen
      grep -q '^tr_TR.UTF-8 UTF-8' /etc/locale.gen || echo 'tr_TR.UTF-8 UTF-8' >> /etc/locale.gen
      locale-gen >/dev/null || true
    fi
  fi
}

configure_and_build() {  # dir, extra cmake args...
  local dir="$1"; shift
  cmake -S "$ROOT" -B "$dir" -G Ninja "$@"
  cmake --build "$dir" -j "$JOBS"
}

run_tests() {  # dir
  (cd "$1" && ctest --output-on-failure -j "$JOBS" --timeout 900)
}

cmd_test() {
  deps
  log "normal build (warnings as errors, C++17 header check included)"
  configure_and_build "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_WARNINGS_AS_ERRORS=ON
  run_tests "$ROOT/build"
  readelf -d "$ROOT/build/src/libCorvix.so.3.0" | grep -q 'SONAME.*\[libCorvix.so.3\]'
}

cmd_sanitize() {
  deps
  log "AddressSanitizer + UndefinedBehaviorSanitizer build"
  configure_and_build "$ROOT/build-asan" -DCMAKE_BUILD_TYPE=Debug -DKX_WARNINGS_AS_ERRORS=ON -DKX_SANITIZE=ON \
    -DKX_HEADER_CHECK=OFF -DKX_BUILD_EXAMPLES=OFF
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
    run_tests "$ROOT/build-asan"
}

cmd_tsan() {
  deps
  log "ThreadSanitizer build of the concurrency-heavy suites (platform, transfers, document getter)"
  local dir="$ROOT/build-tsan"
  cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKX_WARNINGS_AS_ERRORS=ON -DKX_TSAN=ON \
    -DKX_HEADER_CHECK=OFF -DKX_BUILD_EXAMPLES=OFF
  cmake --build "$dir" -j "$JOBS" --target platform_tests core_tests search_tests
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" "$dir/tests/platform_tests" --gtest_brief=1
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" "$dir/tests/core_tests" --gtest_brief=1
  TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" "$dir/tests/search_tests" --gtest_brief=1
}

cmd_install_check() {
  deps
  log "install and build a consumer through find_package and pkg-config"
  local prefix="$ROOT/build/install"
  configure_and_build "$ROOT/build" -DKX_WARNINGS_AS_ERRORS=ON
  rm -rf "$prefix"
  cmake --install "$ROOT/build" --prefix "$prefix" >/dev/null
  readelf -d "$prefix/lib/libCorvix.so.3.0" | grep 'SONAME'
  test -L "$prefix/lib/libCorvix.so" && test -L "$prefix/lib/libCorvix.so.3"
  local consumer="$ROOT/tests/install/consumer"
  cmake -S "$consumer" -B "$ROOT/build/consumer-cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix"
  cmake --build "$ROOT/build/consumer-cmake"
  LD_LIBRARY_PATH="$prefix/lib" "$ROOT/build/consumer-cmake/consumer"
  mkdir -p "$ROOT/build/consumer-pc"
  PKG_CONFIG_PATH="$prefix/lib/pkgconfig" sh -c \
    "c++ -std=c++17 -Wall -Wextra -Werror $consumer/main.cpp \$(pkg-config --cflags --libs corvix) -o $ROOT/build/consumer-pc/consumer"
  LD_LIBRARY_PATH="$prefix/lib" "$ROOT/build/consumer-pc/consumer"
}

cmd_fuzz_smoke() {  # seconds per target
  local seconds="${1:-30}"
  deps
  log "libFuzzer smoke run, ${seconds}s per target"
  local dir="$ROOT/build-fuzz"
  CC=clang CXX=clang++ cmake -S "$ROOT" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DKX_BUILD_FUZZERS=ON -DKX_HEADER_CHECK=OFF -DKX_BUILD_EXAMPLES=OFF \
    -DCMAKE_CXX_FLAGS="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined" \
    -DCMAKE_EXE_LINKER_FLAGS="-fsanitize=address,undefined" -DCMAKE_SHARED_LINKER_FLAGS="-fsanitize=address,undefined"
  local targets
  targets=$(cd "$ROOT/fuzz" && ls *_fuzz.cpp 2>/dev/null | sed 's/\.cpp$//')
  for t in $targets; do cmake --build "$dir" -j "$JOBS" --target "$t"; done
  for t in $targets; do
    local work="$dir/corpus-$t"
    rm -rf "$work" && mkdir -p "$work"
    local dict=()
    [[ -f "$ROOT/fuzz/$t.dict" ]] && dict=(-dict="$ROOT/fuzz/$t.dict")
    log "fuzzing $t"
    local rc=0
    (cd "$dir" && "./fuzz/$t" -max_total_time="$seconds" -max_len=4096 -print_final_stats=1 "${dict[@]}" \
      "$work" "$ROOT/fuzz/corpus/$t") >"$dir/$t.log" 2>&1 || rc=$?
    tail -n 12 "$dir/$t.log"
    if ((rc != 0)); then echo "fuzz target $t failed (exit $rc); artifacts in $dir" >&2; exit 1; fi
  done
}

cmd_bench() {
  deps libbenchmark-dev nginx libgmime-3.0-dev
  log "benchmarks (Release)"
  configure_and_build "$ROOT/build-bench" -DCMAKE_BUILD_TYPE=Release -DKX_BUILD_BENCH=ON -DKX_HEADER_CHECK=OFF
  for b in "$ROOT"/build-bench/bench/*_bench; do
    [[ -x "$b" ]] || continue
    log "$(basename "$b")"
    "$b" --benchmark_repetitions="${BENCH_REPETITIONS:-5}" --benchmark_report_aggregates_only=true
  done
}

cmd_coverage() {
  deps gcovr
  log "coverage build (GCC --coverage, -O0; atomic counters for the threaded tests) and the whole suite"
  local dir="$ROOT/build-coverage"
  configure_and_build "$dir" -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -fprofile-update=atomic -O0 -g" \
    -DCMAKE_C_FLAGS="--coverage -fprofile-update=atomic -O0 -g" -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
    -DKX_WARNINGS_AS_ERRORS=ON -DKX_HEADER_CHECK=OFF -DKX_BUILD_EXAMPLES=OFF
  find "$dir" -name '*.gcda' -delete
  run_tests "$dir"
  # Exception landing pads and branches GCC proves dead are noise for a library that never throws.
  local gcovr_args=(-r "$ROOT" --object-directory "$dir" --exclude-directories "$dir/CMakeFiles" -j "$JOBS"
                    --exclude-throw-branches --exclude-unreachable-branches --txt /dev/null --print-summary)
  for part in src platform; do
    log "coverage of $part/"
    gcovr "${gcovr_args[@]}" --filter "$ROOT/$part/"
  done
  log "coverage of src/ and platform/ (per-file HTML: $dir/coverage.html)"
  gcovr "${gcovr_args[@]}" --filter "$ROOT/src/" --filter "$ROOT/platform/" --html-details "$dir/coverage.html"
}

cmd_demo() {  # optional URL
  deps
  configure_and_build "$ROOT/build" -DCMAKE_BUILD_TYPE=RelWithDebInfo
  "$ROOT/build/examples/corvix_demo" "$@"
}

cmd_ci() {
  cmd_test
  cmd_sanitize
  cmd_tsan
  cmd_install_check
  cmd_fuzz_smoke "${FUZZ_SECONDS:-30}"
}

case "${1:-test}" in
  deps) deps ;;
  test) cmd_test ;;
  sanitize) cmd_sanitize ;;
  tsan) cmd_tsan ;;
  install-check) cmd_install_check ;;
  fuzz-smoke) shift; cmd_fuzz_smoke "$@" ;;
  bench) cmd_bench ;;
  coverage) cmd_coverage ;;
  demo) shift; cmd_demo "$@" ;;
  ci) cmd_ci ;;
  *) echo "usage: $0 {test|sanitize|tsan|install-check|fuzz-smoke [seconds]|bench|coverage|demo [url]|ci|deps}" >&2; exit 2 ;;
esac
