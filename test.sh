#!/usr/bin/env bash
# Builds the test configuration (AddressSanitizer + UndefinedBehaviorSanitizer)
# and runs every test with CTest. Exit status: CTest's. The entries with the
# label "postgres" run the end-to-end suites again with tavrind on the
# PostgreSQL store (skipped where PostgreSQL is not installed).
#   FUZZ=1 ./test.sh   also runs the 60-second fuzz targets (label "fuzz")
#   LOAD=1 ./test.sh   also runs the long load tests (label "load")
set -euo pipefail
cd "$(dirname "$0")"
scripts/bootstrap
build=build/test
exclude=()
labels=()
[[ "${FUZZ:-0}" == 1 ]] || labels+=(fuzz)
[[ "${LOAD:-0}" == 1 ]] || labels+=(load)
if [[ ${#labels[@]} -gt 0 ]]; then
  exclude=(-LE "^($(IFS='|'; echo "${labels[*]}"))$")
fi
fuzz=OFF
[[ "${FUZZ:-0}" == 1 ]] && fuzz=ON
flock /tmp/zentiq-build.lock cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DZENTIQ_SANITIZE=ON \
  -DZENTIQ_FUZZ="$fuzz" >/dev/null
scripts/build-locked "$build"
if [[ "${FUZZ:-0}" != 1 ]]; then
  cd "$build"
  exec ctest --output-on-failure -j"$(nproc)" "${exclude[@]}"
fi
# FUZZ=1: the libFuzzer targets need clang, so they are built in a clang
# folder of their own (only the fuzz targets) and run there after the tests.
status=0
(cd "$build" && ctest --output-on-failure -j"$(nproc)" "${exclude[@]}") || status=$?
fuzzbuild=build/fuzz
flock /tmp/zentiq-build.lock env CC=clang CXX=clang++ cmake -S . -B "$fuzzbuild" -G Ninja \
  -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DZENTIQ_FUZZ=ON -DZENTIQ_BENCH=OFF \
  >/dev/null
scripts/build-locked "$fuzzbuild" fuzz_targets
(cd "$fuzzbuild" && ctest --output-on-failure -L '^fuzz$') || status=$?
exit "$status"
