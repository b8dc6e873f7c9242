file(REMOVE_RECURSE
  "libmoxengine.a"
)
