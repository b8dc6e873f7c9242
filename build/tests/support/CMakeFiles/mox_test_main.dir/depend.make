# Empty dependencies file for mox_test_main.
# This may be replaced when dependencies are built.
