# ICU 4.4's own libraries, which the bundle carries then.  ICU opens a data file by its full path only when
# the file's name holds the library's own version, so icudt44l.dat wants the names that end in _44.  The
# calls are the same since then, so any later ICU's headers serve.
set(PELAGO_ICU_HEADERS /usr/include/unicode CACHE PATH "The folder unicode/ of ICU's headers")
if(NOT EXISTS ${PELAGO_ICU_HEADERS}/putil.h)
    message(FATAL_ERROR "No ICU headers in ${PELAGO_ICU_HEADERS}: set PELAGO_ICU_HEADERS")
endif()
# Nothing but these headers: what else lies beside them is for another host.
file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/icu)
file(CREATE_LINK ${PELAGO_ICU_HEADERS} ${PROJECT_BINARY_DIR}/icu/unicode SYMBOLIC)
target_include_directories(pelago_icu SYSTEM INTERFACE $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/icu>)
set(PELAGO_ICU_SUFFIX _44)
target_compile_options(pelago_icu INTERFACE "-DU_ICU_ENTRY_POINT_RENAME(x)=x##${PELAGO_ICU_SUFFIX}")
target_link_libraries(pelago_icu INTERFACE $<BUILD_INTERFACE:${PELAGO_ICU44}/libicuuc.44.dylib>)
