# Empty dependencies file for moxengine.
# This may be replaced when dependencies are built.
