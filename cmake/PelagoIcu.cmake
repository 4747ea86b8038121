# pelago::icu -- ICU's common library.  All of its data would be five times the rest of the tool, so programs
# of this tree get what the product uses of it.  An installed library leaves ICU to its user.
add_library(pelago_icu INTERFACE)
add_library(pelago::icu ALIAS pelago_icu)
set_target_properties(pelago_icu PROPERTIES EXPORT_NAME icu)

find_program(PYTHON3 python3 REQUIRED)
set(PELAGO_DATA_PACKAGE ${PROJECT_SOURCE_DIR}/platform/icu/dataPackage.py)
set(PELAGO_ICU_CONVERTERS "*.cnv" cnvalias.icu)

# pelago_icu_data(SYMBOL PACKAGE ITEM...) makes the library pelago_icu_data: these items of a data package
# of ICU's, under the name by which ICU's code knows its data.  Both packages are files that tests read:
# PELAGO_ICU_PACKAGE and PELAGO_ICU_DATA.
function(pelago_icu_data symbol package)
    get_filename_component(name ${package} NAME)
    set(data ${PROJECT_BINARY_DIR}/icu/${name})
    set(PELAGO_ICU_PACKAGE ${package} PARENT_SCOPE)
    set(PELAGO_ICU_DATA ${data} PARENT_SCOPE)
    add_custom_command(OUTPUT ${data}
        COMMAND ${PYTHON3} ${PELAGO_DATA_PACKAGE} ${data} ${package} ${ARGN}
        DEPENDS ${PELAGO_DATA_PACKAGE} ${package} VERBATIM)
    set(source ${PROJECT_SOURCE_DIR}/platform/icu/data.c)
    set_source_files_properties(${source} PROPERTIES OBJECT_DEPENDS ${data})
    add_library(pelago_icu_data STATIC ${source})
    target_compile_definitions(pelago_icu_data PRIVATE ICU_DATA_SYMBOL="${symbol}" ICU_DATA="${data}")
endfunction()

set(PELAGO_ICU44 "" CACHE PATH "On a Mac, ICU 4.4 itself: a folder with libicuuc.44.dylib, libicudata.44.dylib, icudt44l.dat")
set(PELAGO_ICU_LICENCE "") # where it is to be put into the bundle
block(PROPAGATE PELAGO_ICU_PACKAGE PELAGO_ICU_DATA PELAGO_ICU_LICENCE)
    if(PELAGO_HOST STREQUAL linux)
        include(cmake/PelagoIcuLinux.cmake)
    elseif(PELAGO_ICU44)
        include(cmake/PelagoIcu44.cmake)
    else()
        include(cmake/PelagoIcuSource.cmake)
    endif()
endblock()
