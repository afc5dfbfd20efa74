#!/usr/bin/env bash
# Builds the Release configuration and runs the project's main job.
set -euo pipefail
cd "$(dirname "$0")"
scripts/bootstrap
build=build/release
flock /tmp/zentiq-build.lock cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DZENTIQ_TESTS=OFF >/dev/null
scripts/build-locked "$build"
exec scripts/main-job "$build" "$@"
