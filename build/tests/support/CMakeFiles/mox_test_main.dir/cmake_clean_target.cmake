file(REMOVE_RECURSE
  "libmox_test_main.a"
)
