set(VALMETRA_TRIPLE i686-w64-mingw32)
set(CMAKE_SYSTEM_PROCESSOR i686)
set(VALMETRA_ARCH x86)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
# SSE2 arithmetic so Single and Double results round exactly as on x64;
# stdcall fix-up so the .def names match the decorated exports.
string(APPEND CMAKE_C_FLAGS_INIT " -msse2 -mfpmath=sse")
string(APPEND CMAKE_CXX_FLAGS_INIT " -msse2 -mfpmath=sse")
string(APPEND CMAKE_SHARED_LINKER_FLAGS_INIT " -Wl,--enable-stdcall-fixup")
string(APPEND CMAKE_EXE_LINKER_FLAGS_INIT " -Wl,--enable-stdcall-fixup")
