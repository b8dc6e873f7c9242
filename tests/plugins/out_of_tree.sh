#!/usr/bin/env bash
# Builds the example source plug-in on its own, against the engine installed
# from BUILD_DIR into a temporary prefix (headers and libmoxcommon found with
# pkg-config only), then has the real daemon load and list it.
#   out_of_tree.sh BUILD_DIR SOURCE_DIR TEST_BINARY
set -euo pipefail
BUILD_DIR=$1
SOURCE_DIR=$2
TEST_BINARY=$3
WORK=$(mktemp -d /tmp/mox-oot.XXXXXX)
trap 'rm -rf "$WORK"' EXIT

cmake --install "$BUILD_DIR" --prefix "$WORK/prefix" > "$WORK/install.log"
PC=$(find "$WORK/prefix" -name libmoxcommon.pc)
# Installed elsewhere than configured: the file's paths hang off its prefix.
sed -i "s|^prefix=.*|prefix=$WORK/prefix|" "$PC"
export PKG_CONFIG_PATH=$(dirname "$PC")
pkg-config --cflags --libs libmoxcommon
# Only the installed tree: nothing of the engine's sources on the include path.
cp -r "$SOURCE_DIR/plugins/example-source" "$WORK/example"
cmake -S "$WORK/example" -B "$WORK/build" -DCMAKE_BUILD_TYPE=Release > "$WORK/configure.log"
cmake --build "$WORK/build" > "$WORK/build.log"
PLUGIN="$WORK/build/libmox_example_source.so"
test -f "$PLUGIN"
MOX_OUT_OF_TREE_PLUGIN="$PLUGIN" "$TEST_BINARY" --gtest_filter='Requests.ExamplePluginIsLoadedAndListed'
