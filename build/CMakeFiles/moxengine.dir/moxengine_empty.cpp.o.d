CMakeFiles/moxengine.dir/moxengine_empty.cpp.o: \
 /work/main/build/moxengine_empty.cpp /usr/include/stdc-predef.h
