# Empty compiler generated dependencies file for moxcommon.
# This may be replaced when dependencies are built.
