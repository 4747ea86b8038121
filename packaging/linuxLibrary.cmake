# The library as it is installed on Linux, as an archive and as a shared library: its objects, and those of ICU and expat
# that they need, are linked into one object in which only the public names are visible.  So no name of a program, of
# its C library, its ICU or its expat collides with one of the library's.
set(PELAGO_SOVERSION 0)
find_program(PELAGO_LD ld.bfd REQUIRED)
find_program(PELAGO_OBJCOPY objcopy REQUIRED)

set(names ${CMAKE_CURRENT_BINARY_DIR}/names)
set(nameFiles ${names}/publicNames.txt ${names}/publicNames.ld ${names}/publicNames.map ${names}/sinks.list)
file(MAKE_DIRECTORY ${names})
file(GLOB publicHeaders CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/lib/public/*.h)
add_custom_command(OUTPUT ${nameFiles}
    COMMAND ${PYTHON3} ${CMAKE_CURRENT_SOURCE_DIR}/publicNames.py ${names} ${CMAKE_C_COMPILER} ${publicHeaders}
    DEPENDS publicNames.py ${publicHeaders} VERBATIM)

add_library(pelago_unused_icu OBJECT unusedIcu.c)
# --force-group-allocation: otherwise the linker could replace our copy of an inline function by the program's.
set(whole ${CMAKE_CURRENT_BINARY_DIR}/whole.o)
set(public ${CMAKE_CURRENT_BINARY_DIR}/public.o)
set(archive ${CMAKE_CURRENT_BINARY_DIR}/libpelago_foundation.a)
add_custom_command(OUTPUT ${whole}
    COMMAND ${PELAGO_LD} -r --force-group-allocation --gc-sections -o ${whole} ${names}/publicNames.ld
            $<TARGET_OBJECTS:pelago_unused_icu> --start-group $<TARGET_FILE:pelago_foundation> $<TARGET_FILE:pelago_platform>
            $<TARGET_FILE:pelago_icu_data> ${ICU_UC} ${EXPAT_ARCHIVE} --end-group
    DEPENDS pelago_foundation pelago_platform pelago_icu_data
            pelago_unused_icu ${ICU_UC} ${EXPAT_ARCHIVE} ${nameFiles} VERBATIM)
add_custom_command(OUTPUT ${public}
    COMMAND ${PELAGO_OBJCOPY} --keep-global-symbols=${names}/publicNames.txt ${whole} ${public}
    DEPENDS ${whole} VERBATIM)
add_custom_command(OUTPUT ${archive}
    COMMAND ${PELAGO_OBJCOPY} --strip-unneeded --remove-section=.comment ${public} pelago_foundation.o
    COMMAND ${CMAKE_COMMAND} -E rm -f ${archive}
    COMMAND ${CMAKE_AR} qcsD ${archive} pelago_foundation.o
    DEPENDS ${public} VERBATIM)
add_custom_target(pelago_installed_archive DEPENDS ${archive})

# --dynamic-list: a program can replace no functions of the library but the sinks.  --gc-sections: symbols that only
# omitted code calls are not required from the loader.
add_library(pelago_foundation_shared SHARED ${public})
set_source_files_properties(${public} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
set_target_properties(pelago_foundation_shared PROPERTIES LINKER_LANGUAGE CXX OUTPUT_NAME pelago_foundation
    VERSION ${PROJECT_VERSION} SOVERSION ${PELAGO_SOVERSION} LINK_DEPENDS "${nameFiles}")
target_link_options(pelago_foundation_shared PRIVATE -Wl,--version-script=${names}/publicNames.map
    -Wl,--dynamic-list=${names}/sinks.list -Wl,-z,defs -Wl,-z,relro -Wl,-z,now -Wl,--as-needed -Wl,--gc-sections)
add_dependencies(pelago_foundation_shared pelago_installed_archive)

add_custom_target(pelago_library ALL DEPENDS pelago_foundation_shared)

install(FILES ${archive} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(TARGETS pelago_foundation_shared LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        COMPONENT runtime NAMELINK_COMPONENT development)

# ---- The flags for programs on the library
# The C++ runtime is named explicitly, because a compiler for C links programs in C.
set(PELAGO_STATIC_NEEDS -lstdc++ -lm -pthread)
list(JOIN PELAGO_STATIC_NEEDS " " PELAGO_STATIC_NEEDS_FLAGS)
pelago_pkg_config(pelago-foundation pelago-foundation-linux.pc.in)
pelago_pkg_config(pelago-foundation-shared pelago-foundation-shared.pc.in)
configure_package_config_file(pelagoConfig-linux.cmake.in pelagoConfig.cmake INSTALL_DESTINATION ${PELAGO_CMAKE_FOLDER}
    PATH_VARS CMAKE_INSTALL_LIBDIR CMAKE_INSTALL_INCLUDEDIR NO_CHECK_REQUIRED_COMPONENTS_MACRO)
