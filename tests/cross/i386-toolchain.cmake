# Building the libraries for 32-bit x86 with the host's compilers and the
# 32-bit C and C++ libraries (Debian: lib32stdc++-12-dev, libc6-dev-i386).
# The kernel's asm headers are shared with the 64-bit system; they are looked
# up after everything else so that no 64-bit-only header is taken first.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(CMAKE_C_COMPILER gcc)
set(CMAKE_CXX_COMPILER g++)
set(CMAKE_C_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_CXX_FLAGS_INIT "-m32 -idirafter /usr/include/x86_64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-m32")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-m32")
