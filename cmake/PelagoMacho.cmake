# Runs the tests of a macOS build on this machine: tests/macos/runner runs Mach-O programs.
include(ExternalProject)

set(PELAGO_MACHO_RUNNER ${PROJECT_BINARY_DIR}/runner/machoRunner)
# Darwin's constants, such as errno values, as the cross compiler's headers define them.
set(PELAGO_DARWIN_NUMBERS ${PROJECT_BINARY_DIR}/runner/numbers/darwin.json)

string(STRIP "${CMAKE_CXX_COMPILER_ARG1}" darwinOptions)
string(REPLACE " " "|" darwinOptions "${darwinOptions}")
ExternalProject_Add(machoRunner
    SOURCE_DIR ${PROJECT_SOURCE_DIR}/tests/macos/runner
    BINARY_DIR ${PROJECT_BINARY_DIR}/runner
    PREFIX ${PROJECT_BINARY_DIR}/runner-project
    LIST_SEPARATOR |
    CMAKE_ARGS -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo
               -DDARWIN_COMPILER=${CMAKE_CXX_COMPILER}|${darwinOptions}
    BUILD_ALWAYS ON
    BUILD_BYPRODUCTS ${PELAGO_MACHO_RUNNER} ${PELAGO_DARWIN_NUMBERS}
    INSTALL_COMMAND "")

# The product built for this machine: tests use its scripts, its example caller and its ICU, and compare its
# library with the macOS one.
set(PELAGO_LINUX_BUILD ${PROJECT_BINARY_DIR}/linux)
ExternalProject_Add(linuxBundle
    SOURCE_DIR ${PROJECT_SOURCE_DIR}
    BINARY_DIR ${PELAGO_LINUX_BUILD}
    PREFIX ${PROJECT_BINARY_DIR}/linux-project
    CMAKE_ARGS -DCMAKE_C_COMPILER=gcc -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo
    BUILD_ALWAYS ON
    BUILD_COMMAND ${CMAKE_COMMAND} --build . --target pelago_bundle shareWhile tellConvertersOfAllData twins
    INSTALL_COMMAND "")
add_custom_target(machoPrograms ALL)
set(CMAKE_CROSSCOMPILING_EMULATOR ${PELAGO_MACHO_RUNNER}) # runs tests that are programs

# pelago_macho_program(TARGET) makes TARGET.elf, an executable for this machine that runs the program TARGET.
function(pelago_macho_program target)
    add_custom_command(OUTPUT ${target}.elf
        COMMAND ${PELAGO_MACHO_RUNNER} --wrap $<TARGET_FILE:${target}> ${target}.elf
        DEPENDS machoRunner ${target} ${PELAGO_MACHO_RUNNER} VERBATIM)
    add_custom_target(${target}Elf DEPENDS ${target}.elf)
    add_dependencies(machoPrograms ${target}Elf)
    set_target_properties(${target} PROPERTIES PELAGO_ELF ${CMAKE_CURRENT_BINARY_DIR}/${target}.elf)
endfunction()
