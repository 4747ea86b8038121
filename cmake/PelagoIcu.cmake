# pelago::icu -- ICU's common library.  PELAGO_ICU_SUFFIX is what the names of its calls end in.
add_library(pelago_icu INTERFACE)
add_library(pelago::icu ALIAS pelago_icu)
set_target_properties(pelago_icu PROPERTIES EXPORT_NAME icu)

if(PELAGO_HOST STREQUAL linux)
    # Linked statically: the tool is started for every share, and loading ICU's 33 MB of shared
    # libraries nearly doubles its start (bench.sh prints both).
    find_path(ICU_INCLUDE_DIR unicode/putil.h REQUIRED)
    find_library(ICU_UC libicuuc.a REQUIRED)
    find_library(ICU_DATA libicudata.a REQUIRED)
    find_program(ICUPKG icupkg HINTS /usr/sbin REQUIRED)
    file(STRINGS ${ICU_INCLUDE_DIR}/unicode/uvernum.h PELAGO_ICU_SUFFIX REGEX "define U_ICU_VERSION_SUFFIX ")
    string(REGEX REPLACE ".* " "" PELAGO_ICU_SUFFIX "${PELAGO_ICU_SUFFIX}")
    find_package(Threads REQUIRED)
    target_include_directories(pelago_icu SYSTEM INTERFACE $<BUILD_INTERFACE:${ICU_INCLUDE_DIR}>)
    target_link_libraries(pelago_icu INTERFACE "$<BUILD_INTERFACE:${ICU_UC};${ICU_DATA}>" $<INSTALL_INTERFACE:ICU::uc>
                          Threads::Threads ${CMAKE_DL_LIBS})
else()
    # ICU 4.4, which the bundle carries: ICU opens a data file by its full path only when the file's
    # name holds the library's own version, so icudt44l.dat wants the names that end in _44.  The
    # calls are the same since then, so any later ICU's headers serve.
    set(PELAGO_ICU_HEADERS /usr/include/unicode CACHE PATH "The folder unicode/ of ICU's headers")
    set(PELAGO_ICU44 "" CACHE PATH "A folder with libicuuc.44.dylib, libicudata.44.dylib and icudt44l.dat")
    if(NOT EXISTS ${PELAGO_ICU_HEADERS}/putil.h)
        message(FATAL_ERROR "No ICU headers in ${PELAGO_ICU_HEADERS}: set PELAGO_ICU_HEADERS")
    endif()
    # Nothing but these headers: what else lies beside them is for another host.
    file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/icu)
    file(CREATE_LINK ${PELAGO_ICU_HEADERS} ${PROJECT_BINARY_DIR}/icu/unicode SYMBOLIC)
    target_include_directories(pelago_icu SYSTEM INTERFACE $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/icu>)
    set(PELAGO_ICU_SUFFIX _44)
    target_compile_options(pelago_icu INTERFACE "-DU_ICU_ENTRY_POINT_RENAME(x)=x##${PELAGO_ICU_SUFFIX}")
    if(PELAGO_ICU44)
        target_link_libraries(pelago_icu INTERFACE $<BUILD_INTERFACE:${PELAGO_ICU44}/libicuuc.44.dylib>)
    elseif(PELAGO_CROSS)
        target_link_libraries(pelago_icu INTERFACE
            $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/macos/stubs/lib/libicuuc.44.tbd>)
    else()
        message(FATAL_ERROR "The bundle carries ICU 4.4: set PELAGO_ICU44")
    endif()
endif()
