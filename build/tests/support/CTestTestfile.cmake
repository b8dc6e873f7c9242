# CMake generated Testfile for 
# Source directory: /work/main/tests/support
# Build directory: /work/main/build/tests/support
# 
# This file includes the relevant testing commands required for 
# testing this directory and lists subdirectories to be tested as well.
