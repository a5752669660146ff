# Cross toolchain: Windows x64 through Debian's mingw-w64 (posix threading model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(TOOLCHAIN_PREFIX x86_64-w64-mingw32)

set(CMAKE_C_COMPILER   ${TOOLCHAIN_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${TOOLCHAIN_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER  ${TOOLCHAIN_PREFIX}-windres)
set(TARROW_WIDL        ${TOOLCHAIN_PREFIX}-widl)

# Where Debian's packages put what the build takes from the host; another layout sets these.
set(WINE_IDL_DIR /usr/include/wine/wine/windows CACHE PATH "Wine's IDL files, for the interface's imports")
set(WINE_TLB_DIR /usr/lib/x86_64-linux-gnu/wine/x86_64-windows CACHE PATH "Wine's stdole2.tlb, for the type library")
set(GOOGLETEST_SOURCE_DIR /usr/src/googletest CACHE PATH "GoogleTest's sources, built with the tests")

set(CMAKE_FIND_ROOT_PATH /usr/${TOOLCHAIN_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Every test program runs under Wine in a prefix of its own (see tests/support/wine-run).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../tests/support/wine-run)
