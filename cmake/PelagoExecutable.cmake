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

# pelago_lean_executable(TARGET) links a program that starts as fast as it can: nothing that it does
# not call, and no C++ runtime to load.  A sanitizer brings a runtime of its own.
function(pelago_lean_executable target)
    if(PELAGO_HOST STREQUAL macos)
        target_link_options(${target} PRIVATE -Wl,-dead_strip)
        return()
    endif()
    target_link_options(${target} PRIVATE -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
    if(NOT PELAGO_SANITIZE)
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endfunction()
