# The host's own ICU, linked statically: the tool is started for every share, and loading ICU's 33 MB of
# shared libraries nearly doubles its start (bench.sh prints both).
find_path(ICU_INCLUDE_DIR unicode/putil.h REQUIRED)
find_library(ICU_UC libicuuc.a REQUIRED)
find_library(ICU_DATA libicudata.a REQUIRED)
find_package(Threads REQUIRED)

# The archive contains one object, and the object one section with ICU's data package.
file(STRINGS ${ICU_INCLUDE_DIR}/unicode/uvernum.h icuVersion REGEX "define U_ICU_VERSION_MAJOR_NUM ")
string(REGEX REPLACE ".* " "" icuVersion "${icuVersion}")
set(PELAGO_ICU_SUFFIX _${icuVersion})
set(whole ${PROJECT_BINARY_DIR}/icu/whole)
set(object icudt${icuVersion}l_dat.o)
set(package ${whole}/icudt${icuVersion}l.dat)
file(MAKE_DIRECTORY ${whole})
add_custom_command(OUTPUT ${package}
    COMMAND ${CMAKE_AR} x ${ICU_DATA} ${object}
    COMMAND ${CMAKE_OBJCOPY} -O binary --only-section=.rodata ${object} ${package}
    COMMAND ${CMAKE_COMMAND} -E rm ${object}
    DEPENDS ${ICU_DATA} WORKING_DIRECTORY ${whole} VERBATIM)
# nfkc.nrm has the tables for normalization; on a Mac the SDK's own libraries normalize.
add_library(pelago_icu_data STATIC)
pelago_icu_data(pelago_icu_data icudt${icuVersion}_dat ${package} ${PELAGO_ICU_CONVERTERS} nfkc.nrm)

target_include_directories(pelago_icu SYSTEM INTERFACE $<BUILD_INTERFACE:${ICU_INCLUDE_DIR}>)
target_link_libraries(pelago_icu INTERFACE ${ICU_UC} pelago_icu_data Threads::Threads ${CMAKE_DL_LIBS})
