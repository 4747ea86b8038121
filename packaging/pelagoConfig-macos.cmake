# find_package(pelago) defines pelago::foundation, the static library.
include(${CMAKE_CURRENT_LIST_DIR}/pelagoTargets.cmake)

# A Mac has the SDK's frameworks; other hosts link stubs of them.
set(pelago_STUBS ${CMAKE_CURRENT_LIST_DIR}/../../pelago/Frameworks)
if(NOT CMAKE_HOST_APPLE AND EXISTS ${pelago_STUBS})
    set_property(TARGET pelago::platform APPEND PROPERTY INTERFACE_LINK_OPTIONS "SHELL:-F \"${pelago_STUBS}\"")
endif()
