# ICU 4.4's own libraries, which the bundle then contains.  ICU opens a data file by its full path only if the
# file's name contains the library's version, so icudt44l.dat needs the functions whose names end in _44.  Their
# declarations have not changed since, so the headers of any later ICU will do.
set(PELAGO_ICU_HEADERS /usr/include/unicode CACHE PATH "The folder unicode/ of ICU's headers")
if(NOT EXISTS ${PELAGO_ICU_HEADERS}/putil.h)
    message(FATAL_ERROR "No ICU headers in ${PELAGO_ICU_HEADERS}: set PELAGO_ICU_HEADERS")
endif()
# Links to these headers alone, since the other headers in their folder are for another host.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/icu)
file(CREATE_LINK ${PELAGO_ICU_HEADERS} ${PROJECT_BINARY_DIR}/icu/unicode SYMBOLIC)
target_include_directories(pelago_icu SYSTEM INTERFACE $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/icu>)
set(PELAGO_ICU_SUFFIX _44)
target_compile_options(pelago_icu INTERFACE "-DU_ICU_ENTRY_POINT_RENAME(x)=x##${PELAGO_ICU_SUFFIX}")
target_link_libraries(pelago_icu INTERFACE $<BUILD_INTERFACE:${PELAGO_ICU44}/libicuuc.44.dylib>)
