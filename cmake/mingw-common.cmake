# Shared part of the mingw-w64 toolchain files: the including file sets
# VALMETRA_TRIPLE, CMAKE_SYSTEM_PROCESSOR and VALMETRA_ARCH first.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${VALMETRA_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VALMETRA_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VALMETRA_TRIPLE}-windres)
set(VALMETRA_WIDL ${VALMETRA_TRIPLE}-widl)
set(CMAKE_FIND_ROOT_PATH /usr/${VALMETRA_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Static runtime: the DLLs and test programs need nothing beside them.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
