CMakeFiles/moxcommon.dir/moxcommon_empty.cpp.o: \
 /work/main/build/moxcommon_empty.cpp /usr/include/stdc-predef.h
