# Empty dependencies file for moxplatform.
# This may be replaced when dependencies are built.
