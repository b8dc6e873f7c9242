file(REMOVE_RECURSE
  "CMakeFiles/moxplatform.dir/platform/dlog.cpp.o"
  "CMakeFiles/moxplatform.dir/platform/dlog.cpp.o.d"
  "CMakeFiles/moxplatform.dir/platform/host_env.cpp.o"
  "CMakeFiles/moxplatform.dir/platform/host_env.cpp.o.d"
  "libmoxplatform.pdb"
  "libmoxplatform.so"
  "libmoxplatform.so.0"
  "libmoxplatform.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/moxplatform.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
