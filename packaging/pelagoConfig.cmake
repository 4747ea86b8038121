# find_package(pelago) gives pelago::foundation, the static library.  A program that links it supplies
# Warning, Log and Panic (pelago/diagnostics.h).
include(CMakeFindDependencyMacro)
if(NOT CMAKE_SYSTEM_NAME STREQUAL Darwin)
    find_dependency(Threads)
    find_dependency(PkgConfig)
    pkg_check_modules(LIBPLIST QUIET REQUIRED IMPORTED_TARGET libplist-2.0)
endif()
find_dependency(ICU COMPONENTS uc data)
include(${CMAKE_CURRENT_LIST_DIR}/pelagoTargets.cmake)
