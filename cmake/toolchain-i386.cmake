# 32-bit x86 by the machine's own compiler; the result runs on the same machine.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
# The kernel headers that both x86 kinds share are installed under the 64-bit name only.
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu)
