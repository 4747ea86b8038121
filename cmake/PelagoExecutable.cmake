# PELAGO_HOST is the host that the build is for: the name of its folders in the source tree.
if(CMAKE_SYSTEM_NAME STREQUAL Darwin)
    set(PELAGO_HOST macos)
else()
    string(TOLOWER ${CMAKE_SYSTEM_NAME} PELAGO_HOST)
endif()

# The product's bundle in the build tree.
set(PELAGO_BUNDLE ${PROJECT_BINARY_DIR}/Pelago.app)
# The folder that the bundle is installed into, relative to the prefix.
if(PELAGO_HOST STREQUAL macos)
    set(PELAGO_BUNDLE_PLACE .)
else()
    set(PELAGO_BUNDLE_PLACE lib/pelago)
endif()

# pelago_lean_executable(TARGET [ALONE]) links a program that starts as fast as it can: it contains no code that it
# does not call, and loads no C++ runtime.  A sanitizer brings a runtime of its own.
#
# ALONE: on Linux the program loads no library at all.  It starts in two thirds of the time, and no library that its
# caller's environment names, as in LD_PRELOAD, gets into a program that is root.  Its addresses are as random as
# before, and read-only once it has relocated itself.  The price: an update of the C library reaches the program when
# it is built again, as an update of ICU, expat and the C++ runtime does in any case.  Not for programs that ask the
# C library for users, hosts or locales: the C library loads modules for these.
function(pelago_lean_executable target)
    if(PELAGO_HOST STREQUAL macos)
        target_link_options(${target} PRIVATE -Wl,-dead_strip)
        return()
    endif()
    target_link_options(${target} PRIVATE -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
    if(PELAGO_SANITIZE)
        return()
    elseif("ALONE" IN_LIST ARGN)
        # The linker warns of ICU's call of dlopen() for plug-ins, which no program here uses.
        target_link_options(${target} PRIVATE -static-pie -Wl,--no-warnings)
    else()
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endfunction()
