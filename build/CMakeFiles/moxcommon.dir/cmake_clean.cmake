file(REMOVE_RECURSE
  "CMakeFiles/moxcommon.dir/common/cache/src/cache_folder.cpp.o"
  "CMakeFiles/moxcommon.dir/common/cache/src/cache_folder.cpp.o.d"
  "libmoxcommon.pdb"
  "libmoxcommon.so"
  "libmoxcommon.so.0"
  "libmoxcommon.so.0.1.0"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/moxcommon.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
