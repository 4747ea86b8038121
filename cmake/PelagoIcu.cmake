# pelago::icu -- ICU's common library, linked statically: the tool is started for every share, and
# loading ICU's 33 MB of shared libraries doubles its start (bench.sh prints both).
find_path(ICU_INCLUDE_DIR unicode/putil.h REQUIRED)
find_library(ICU_UC libicuuc.a REQUIRED)
find_library(ICU_DATA libicudata.a REQUIRED)
find_program(ICUPKG icupkg HINTS /usr/sbin REQUIRED)
find_package(Threads REQUIRED)

add_library(pelago_icu INTERFACE)
add_library(pelago::icu ALIAS pelago_icu)
target_include_directories(pelago_icu SYSTEM INTERFACE ${ICU_INCLUDE_DIR})
target_link_libraries(pelago_icu INTERFACE ${ICU_UC} ${ICU_DATA} Threads::Threads ${CMAKE_DL_LIBS})
