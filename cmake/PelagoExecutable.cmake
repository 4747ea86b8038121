# Where the product's bundle is put together in the build tree.
set(PELAGO_BUNDLE ${PROJECT_BINARY_DIR}/Pelago.app)

# pelago_lean_executable(TARGET) links a program that starts as fast as it can: nothing that it does
# not call, and no C++ runtime to load.  A sanitizer brings a runtime of its own.
function(pelago_lean_executable target)
    target_link_options(${target} PRIVATE -Wl,--gc-sections -Wl,-z,relro -Wl,-z,now -Wl,--as-needed)
    if(NOT PELAGO_SANITIZE)
        target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
    endif()
endfunction()
