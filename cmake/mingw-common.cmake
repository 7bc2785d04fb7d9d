# Shared part of the mingw-w64 toolchain files: the including file sets
# VALMETRA_TRIPLE, CMAKE_SYSTEM_PROCESSOR and VALMETRA_ARCH first.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_C_COMPILER ${VALMETRA_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VALMETRA_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VALMETRA_TRIPLE}-windres)
# widl writes the time it ran into every type library ("Created by WIDL ...
# at <time>"), and this version does not read SOURCE_DATE_EPOCH: it runs with
# its clock fixed at the library's date, so the type library (and the DLL
# that embeds it) comes out the same in every build.
find_program(VALMETRA_FAKETIME faketime)
if(VALMETRA_FAKETIME)
  set(VALMETRA_WIDL env TZ=UTC ${VALMETRA_FAKETIME} -f "2009-02-23 00:00:00" ${VALMETRA_TRIPLE}-widl)
else()
  set(VALMETRA_WIDL ${VALMETRA_TRIPLE}-widl)
endif()
set(CMAKE_FIND_ROOT_PATH /usr/${VALMETRA_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# Static runtime: the DLLs and test programs need nothing beside them.
# Reproducible outputs: no link time stamp in the PE header, and no build
# path in anything the compiler records (__FILE__, debug information), so two
# builds of one commit in different folders give the same bytes.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++ -Wl,--no-insert-timestamp")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++ -Wl,--no-insert-timestamp")
get_filename_component(VALMETRA_TOP "${CMAKE_CURRENT_LIST_DIR}/.." ABSOLUTE)
# The build folder (inside the checkout or not) is mapped last, so it wins.
set(VALMETRA_PREFIX_MAP "-ffile-prefix-map=${VALMETRA_TOP}/=")
if(CMAKE_BINARY_DIR)
  string(APPEND VALMETRA_PREFIX_MAP " -ffile-prefix-map=${CMAKE_BINARY_DIR}/=")
endif()
set(CMAKE_C_FLAGS_INIT "${VALMETRA_PREFIX_MAP}")
set(CMAKE_CXX_FLAGS_INIT "${VALMETRA_PREFIX_MAP}")
