# Installs the library for macOS: its archives, and ICU's converters.
if(TARGET pelago_icu_code)
    set(PELAGO_ICU_LIBRARY -lpelago_icu)
    install(TARGETS pelago_icu_code EXPORT pelago
            ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
    install(FILES ${PELAGO_ICU_LICENCE} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/pelago-foundation
            RENAME LICENSE.icu COMPONENT development)
endif()
install(TARGETS pelago_foundation pelago_platform pelago_icu EXPORT pelago
        ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
install(EXPORT pelago NAMESPACE pelago:: FILE pelagoTargets.cmake DESTINATION ${PELAGO_CMAKE_FOLDER}
        COMPONENT development)
add_custom_target(pelago_library DEPENDS pelago_foundation)
configure_file(pelagoConfig-macos.cmake pelagoConfig.cmake COPYONLY)
pelago_pkg_config(pelago-foundation pelago-foundation-macos.pc.in)
if(PELAGO_CROSS)
    # Without the SDK, a program that links the library needs the stubs of the SDK's libraries, too.
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/macos/stubs/Frameworks
            DESTINATION ${CMAKE_INSTALL_LIBDIR}/pelago COMPONENT development)
endif()
