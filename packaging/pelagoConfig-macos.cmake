# find_package(pelago) gives pelago::foundation, the static library.  A program that links it supplies
# Warning, Log and Panic (pelago/diagnostics.h).
include(CMakeFindDependencyMacro)
if(NOT CMAKE_SYSTEM_NAME STREQUAL Darwin)
    find_dependency(Threads)
    find_dependency(PkgConfig)
    pkg_check_modules(LIBPLIST QUIET REQUIRED IMPORTED_TARGET libplist-2.0)
    find_dependency(ICU COMPONENTS uc data)
endif()
include(${CMAKE_CURRENT_LIST_DIR}/pelagoTargets.cmake)

# A Mac has the frameworks themselves; elsewhere stubs of them serve.
set(pelago_STUBS ${CMAKE_CURRENT_LIST_DIR}/../../pelago/Frameworks)
if(CMAKE_SYSTEM_NAME STREQUAL Darwin AND NOT CMAKE_HOST_APPLE AND EXISTS ${pelago_STUBS})
    set_property(TARGET pelago::platform APPEND PROPERTY INTERFACE_LINK_OPTIONS "SHELL:-F \"${pelago_STUBS}\"")
endif()
