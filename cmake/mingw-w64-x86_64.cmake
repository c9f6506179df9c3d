# Cross-compiling the Windows x64 DLL with Debian's mingw-w64 (POSIX thread model, for C++17
# threads). LUMO_WINDEPS names the prefix where scripts/build-windows-deps installed the
# cross-built dependencies.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
set(CMAKE_AR x86_64-w64-mingw32-gcc-ar-posix)
set(CMAKE_RANLIB x86_64-w64-mingw32-gcc-ranlib-posix)

if(NOT LUMO_WINDEPS AND DEFINED ENV{LUMO_WINDEPS})
  set(LUMO_WINDEPS $ENV{LUMO_WINDEPS})
endif()
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 ${LUMO_WINDEPS})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Unit tests run under wine.
set(CMAKE_CROSSCOMPILING_EMULATOR wine)

# Everything static: the DLL and the test programs import only system DLLs.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
