file(REMOVE_RECURSE
  "CMakeFiles/moxengine.dir/moxengine_empty.cpp.o"
  "CMakeFiles/moxengine.dir/moxengine_empty.cpp.o.d"
  "libmoxengine.a"
  "libmoxengine.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/moxengine.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
