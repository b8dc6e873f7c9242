
# Consider dependencies only in project.
set(CMAKE_DEPENDS_IN_PROJECT_ONLY OFF)

# The set of languages for which implicit dependencies are needed:
set(CMAKE_DEPENDS_LANGUAGES
  )

# The set of dependency files which are needed:
set(CMAKE_DEPENDS_DEPENDENCY_FILES
  "/work/main/tests/support/temp_dir.cpp" "tests/support/CMakeFiles/mox_test_main.dir/temp_dir.cpp.o" "gcc" "tests/support/CMakeFiles/mox_test_main.dir/temp_dir.cpp.o.d"
  "/work/main/tests/support/test_main.cpp" "tests/support/CMakeFiles/mox_test_main.dir/test_main.cpp.o" "gcc" "tests/support/CMakeFiles/mox_test_main.dir/test_main.cpp.o.d"
  )

# Targets to which this target links.
set(CMAKE_TARGET_LINKED_INFO_FILES
  )

# Fortran module output directory.
set(CMAKE_Fortran_TARGET_MODULE_DIR "")
