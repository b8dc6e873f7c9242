#!/usr/bin/env bash
# Builds the engine with ASan+UBSan and runs the whole test suite, then the
# threaded tests under TSan and the fuzz targets for a short bounded time.
# Fails when a test fails or a test leaves a mox_* object in /dev/shm.
# Then, where it can (root; MOX_TEST_PACKAGE=0 skips it), builds the Debian
# packages, lints them and runs them installed in a throw-away root.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD
JOBS=$(nproc)

# Only the objects this run creates count: as root the whole run gets a
# /dev/shm of its own in a private mount namespace, so another engine on the
# machine can neither fail the check nor see our objects. Otherwise the
# names present at the start are left out of it.
if [ "$(id -u)" -eq 0 ] && [ -z "${MOX_TEST_PRIVATE_SHM:-}" ] && command -v unshare > /dev/null; then
  exec unshare --mount --propagation private env MOX_TEST_PRIVATE_SHM=1 \
    bash -c 'mount -t tmpfs -o mode=1777 tmpfs /dev/shm && exec "$0" "$@"' "$ROOT/scripts/test.sh" "$@"
fi

scripts/install-deps.sh

shm_objects() { ls /dev/shm 2>/dev/null | grep '^mox_' | sort || true; }
shm_before=$(shm_objects)

launcher=()
if command -v ccache > /dev/null; then
  launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
fi

# Lock discipline: clang's thread-safety analysis over the daemon and the
# libraries, warnings as errors. Compiles only, no tests.
if command -v clang++ > /dev/null; then
  CC=clang CXX=clang++ cmake -S . -B build-tsa -DCMAKE_BUILD_TYPE=Debug -DMOX_THREAD_SAFETY=ON \
    -DMOX_BUILD_TESTS=OFF ${launcher[@]+"${launcher[@]}"} > /dev/null
  cmake --build build-tsa -j"$JOBS" --target mox-engine mox-extract moxcommon moxhttp moxplatform
else
  echo "warning: no clang++, lock annotations not checked" >&2
fi

# Layout: .clang-format decides it, so a change never mixes reformatting with
# its real diff. Tracked C and C++ sources only.
if command -v clang-format-14 > /dev/null && git rev-parse --git-dir > /dev/null 2>&1; then
  git ls-files -z '*.c' '*.cpp' '*.h' | xargs -0 clang-format-14 --dry-run --Werror
else
  echo "warning: no clang-format-14 or no git checkout, layout not checked" >&2
fi

# Warnings are errors in the test builds (-Wall -Wextra -Wshadow).
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DMOX_SANITIZE=address -DMOX_WERROR=ON \
  ${launcher[@]+"${launcher[@]}"} > /dev/null
cmake --build build-asan -j"$JOBS"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
ctest --test-dir build-asan --output-on-failure -j"$JOBS"

if grep -rqs 'label.*tsan\|LABELS.*tsan' tests; then
  cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DMOX_SANITIZE=thread -DMOX_WERROR=ON \
    ${launcher[@]+"${launcher[@]}"} > /dev/null
  TSAN_TARGETS=$(ctest --test-dir build-tsan -N -L tsan 2>/dev/null | sed -n 's/^ *Test *#[0-9]*: //p')
  if [ -n "$TSAN_TARGETS" ]; then
    cmake --build build-tsan -j"$JOBS" --target $TSAN_TARGETS
    TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
      ctest --test-dir build-tsan --output-on-failure -L tsan -j"$JOBS"
  fi
fi

if [ -x scripts/run-fuzz.sh ]; then
  scripts/run-fuzz.sh "${MOX_FUZZ_SECONDS:-30}"
fi

left=$(comm -13 <(echo "$shm_before") <(shm_objects))
if [ -n "$left" ]; then
  echo "error: the tests left mox_* objects in /dev/shm:" >&2
  echo "$left" >&2
  exit 1
fi

# The packages: built, lint-free, and working as installed. A Release build
# of its own (a few minutes): skipped without root, or with MOX_TEST_PACKAGE=0.
if [ "$(id -u)" -eq 0 ] && [ "${MOX_TEST_PACKAGE:-1}" != 0 ]; then
  mkdir -p build-deb
  scripts/build-deb.sh > build-deb/build.log 2>&1 || { tail -n 60 build-deb/build.log; exit 1; }
  sed -n '/^== lintian/,$p' build-deb/build.log
  scripts/test-deb-install.sh build-deb
else
  echo "note: packaging test skipped (needs root; MOX_TEST_PACKAGE=0 skips it)"
fi
echo "All tests passed."
