#!/usr/bin/env bash
# Runs mox-engine under valgrind --leak-check=full through a start/serve/stop
# cycle on a private bus and fails on any definite leak.
set -euo pipefail
cd "$(dirname "$0")/.."
ROOT=$PWD

scripts/install-deps.sh
cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DMOX_BUILD_TESTS=OFF > /dev/null
cmake --build build-release -j"$(nproc)" --target mox-engine

WORK=$(mktemp -d /tmp/mox-valgrind.XXXXXX)
. scripts/lib/engine-env.sh
REPORT=$ROOT/build-release/valgrind.txt
trap engine_env_cleanup EXIT
engine_env_start_bus

valgrind --leak-check=full --show-leak-kinds=definite --errors-for-leak-kinds=definite \
  --error-exitcode=3 --log-file="$REPORT" build-release/mox-server/engine/src/mox-engine &
ENGINE_PID=$!
engine_env_wait_for_name
engine_call start_server > /dev/null
engine_call check_folder_path '{"OPERATION_TYPE":0,"FOLDER_PATH":"/a","FOLDER_ID":"1"}' > /dev/null
engine_call check_folder_path '{"OPERATION_TYPE":1,"FOLDER_PATH":"/a"}' > /dev/null
engine_call check_folder_path '{not json' > /dev/null
engine_call usb_file_write "$WORK/x.txt" /mox_valgrind_missing > /dev/null
engine_call get_usb_storages 1 > /dev/null
engine_call bind_usb_event 1 > /dev/null
engine_call foo > /dev/null
kill -TERM "$ENGINE_PID"
wait "$ENGINE_PID" && status=0 || status=$?
ENGINE_PID=""
grep -E 'definitely lost|ERROR SUMMARY' "$REPORT"
echo "valgrind exit status $status (report: $REPORT)"
exit "$status"
