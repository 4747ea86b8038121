# Runs before cpack packs: what Debian wants compressed or stripped, and an installation does not.
set(staged ${CPACK_TEMPORARY_DIRECTORY})

function(must)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN} ended with ${status}")
    endif()
endfunction()

file(GLOB pages ${staged}/*/usr/share/man/man*/*)
foreach(page ${pages} ${staged}/tool/usr/share/doc/pelago-share-tool/changelog
        ${staged}/development/usr/share/doc/libpelago-foundation-dev/changelog)
    if(IS_SYMLINK ${page})
        file(READ_SYMLINK ${page} target)
        file(CREATE_LINK ${target}.gz ${page}.gz SYMBOLIC)
        file(REMOVE ${page})
    else()
        must(gzip -9n ${page})
    endif()
endforeach()

file(GLOB archives ${staged}/development/usr/lib/*/*.a)
must(strip --strip-debug --remove-section=.comment --enable-deterministic-archives ${archives})
