file(REMOVE_RECURSE
  "CMakeFiles/mox_test_main.dir/temp_dir.cpp.o"
  "CMakeFiles/mox_test_main.dir/temp_dir.cpp.o.d"
  "CMakeFiles/mox_test_main.dir/test_main.cpp.o"
  "CMakeFiles/mox_test_main.dir/test_main.cpp.o.d"
  "libmox_test_main.a"
  "libmox_test_main.pdb"
)

# Per-language clean rules from dependency scanning.
foreach(lang CXX)
  include(CMakeFiles/mox_test_main.dir/cmake_clean_${lang}.cmake OPTIONAL)
endforeach()
