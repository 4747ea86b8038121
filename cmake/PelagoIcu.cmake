# pelago::icu -- ICU's common library.  All of ICU's data would be five times the size of the rest of the tool,
# so the programs of this tree, and on Linux the installed library, contain only the data that the product uses.
add_library(pelago_icu INTERFACE)
add_library(pelago::icu ALIAS pelago_icu)
set_target_properties(pelago_icu PROPERTIES EXPORT_NAME icu)

find_program(PYTHON3 python3 REQUIRED)
set(PELAGO_DATA_PACKAGE ${CMAKE_CURRENT_LIST_DIR}/../platform/icu/dataPackage.py)
set(PELAGO_ICU_CONVERTERS "*.cnv" cnvalias.icu)

# pelago_icu_data(TARGET SYMBOL PACKAGE ITEM...) makes a data package of these items of ICU's PACKAGE, and adds it
# to the library TARGET under SYMBOL, the name by which ICU's code refers to its data.  It sets PELAGO_ICU_PACKAGE
# and PELAGO_ICU_DATA to the paths of ICU's package and of the new one, which tests read.
function(pelago_icu_data target symbol package)
    get_filename_component(name ${package} NAME)
    set(data ${PROJECT_BINARY_DIR}/icu/${name})
    set(PELAGO_ICU_PACKAGE ${package} PARENT_SCOPE)
    set(PELAGO_ICU_DATA ${data} PARENT_SCOPE)
    add_custom_command(OUTPUT ${data}
        COMMAND ${PYTHON3} ${PELAGO_DATA_PACKAGE} ${data} ${package} ${ARGN}
        DEPENDS ${PELAGO_DATA_PACKAGE} ${package} VERBATIM)
    set(source ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../platform/icu/data.c)
    target_sources(${target} PRIVATE ${source})
    set_source_files_properties(${source} PROPERTIES OBJECT_DEPENDS ${data}
        COMPILE_DEFINITIONS "ICU_DATA_SYMBOL=\"${symbol}\";ICU_DATA=\"${data}\"")
endfunction()

set(PELAGO_ICU44 "" CACHE PATH "On a Mac, ICU 4.4 itself: a folder with libicuuc.44.dylib, libicudata.44.dylib, icudt44l.dat")
set(PELAGO_ICU_LICENCE "") # the path of ICU's licence, where the bundle must contain it
block(PROPAGATE PELAGO_ICU_PACKAGE PELAGO_ICU_DATA PELAGO_ICU_LICENCE PELAGO_ICU_SUFFIX)
    if(PELAGO_HOST STREQUAL linux)
        include(${CMAKE_CURRENT_LIST_DIR}/PelagoIcuLinux.cmake)
    elseif(PELAGO_ICU44)
        include(${CMAKE_CURRENT_LIST_DIR}/PelagoIcu44.cmake)
    else()
        include(${CMAKE_CURRENT_LIST_DIR}/PelagoIcuSource.cmake)
    endif()
endblock()
