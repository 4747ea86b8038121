# Runs after cpack has made the packages, and corrects where cpack differs from Debian's own tools:
# - Installed-Size counts a link with the size of its target
# - md5sums lists debug symbols by the paths at which they were built
# - the packages of debug symbols have no documents
# - postinst and postrm call ldconfig where a trigger does so, too
function(must)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE status OUTPUT_VARIABLE out)
    if(NOT status EQUAL 0)
        message(FATAL_ERROR "${ARGN} ended with ${status}")
    endif()
    set(out "${out}" PARENT_SCOPE)
endfunction()

set(tree ${CPACK_TEMPORARY_DIRECTORY}.again)
foreach(package ${CPACK_PACKAGE_FILES})
    file(REMOVE_RECURSE ${tree})
    must(dpkg-deb --raw-extract ${package} ${tree})
    if(package MATCHES "/([^/]*)-dbgsym_[^/]*$")
        file(MAKE_DIRECTORY ${tree}/usr/share/doc)
        file(CREATE_LINK ${CMAKE_MATCH_1} ${tree}/usr/share/doc/${CMAKE_MATCH_1}-dbgsym SYMBOLIC)
    endif()
    if(EXISTS ${tree}/DEBIAN/triggers)
        file(REMOVE ${tree}/DEBIAN/postinst ${tree}/DEBIAN/postrm)
    endif()
    must(sh -c "cd '${tree}' && find usr -type f -print0 | LC_ALL=C sort -z | xargs -0 md5sum >DEBIAN/md5sums")
    must(du --summarize --apparent-size --block-size=1K ${tree}/usr)
    string(REGEX MATCH "^[0-9]+" size "${out}")
    file(READ ${tree}/DEBIAN/control control)
    string(REGEX REPLACE "Installed-Size: [0-9]+" "Installed-Size: ${size}" control "${control}")
    file(WRITE ${tree}/DEBIAN/control "${control}")
    must(dpkg-deb --root-owner-group -Zgzip --build ${tree} ${package})
endforeach()
file(REMOVE_RECURSE ${tree})
