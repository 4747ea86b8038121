# A test that takes longer than this counts as hanging.
set(PELAGO_TEST_SECONDS 900 CACHE STRING "how long one test may take")

# Tests expect allocations to fail; the sanitizers must return NULL then, not report an error.
set(PELAGO_TEST_ENVIRONMENT "ASAN_OPTIONS=allocator_may_return_null=1;TSAN_OPTIONS=allocator_may_return_null=1")

# Runs a test program, and fails if it ends before all of its tests have run, whatever its status.
set(PELAGO_COMPLETE ${PROJECT_SOURCE_DIR}/tests/support/complete.sh)

# In a cross build CMAKE_CROSSCOMPILING_EMULATOR runs the test programs.  A table lists the suites and cases that
# cannot run that way.  A row is "suite  reason", or "suite:Case.name  reason".
set(PELAGO_NOT_RUN ${PROJECT_SOURCE_DIR}/tests/macos/notRun.txt)
if(PELAGO_CROSS)
    file(STRINGS ${PELAGO_NOT_RUN} PELAGO_NOT_RUN_ROWS REGEX "^[^#]")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PELAGO_NOT_RUN})
endif()

# pelago_register(NAME LABEL COMMAND...) registers the program NAME_test as a test, started through COMMAND.
function(pelago_register name label)
    set(isOut ${PELAGO_NOT_RUN_ROWS})
    list(FILTER isOut INCLUDE REGEX "^${name} ")
    if(isOut)
        set_target_properties(${name}_test PROPERTIES EXCLUDE_FROM_ALL ON)
        return()
    endif()
    set(casesOut ${PELAGO_NOT_RUN_ROWS})
    list(FILTER casesOut INCLUDE REGEX "^${name}:")
    list(TRANSFORM casesOut REPLACE "^[^:]*:([^ ]*) .*" "\\1")
    list(JOIN casesOut ":" casesOut)
    if(casesOut)
        set(casesOut --gtest_filter=-${casesOut})
    endif()
    set(program ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${name}_test>)
    set(wrapped $<TARGET_PROPERTY:${name}_test,PELAGO_ELF>) # the runner and the program in one file
    add_test(NAME ${name} COMMAND_EXPAND_LISTS
             COMMAND ${ARGN} ${PELAGO_COMPLETE} "$<IF:$<BOOL:${wrapped}>,${wrapped},${program}>" ${casesOut})
    set_tests_properties(${name} PROPERTIES LABELS ${label} TIMEOUT ${PELAGO_TEST_SECONDS}
                         ENVIRONMENT "${PELAGO_TEST_ENVIRONMENT}")
    set_property(GLOBAL APPEND PROPERTY PELAGO_SUITES ${name})
endfunction()

function(pelago_test_program name)
    add_executable(${name}_test ${name}_test.cpp)
    target_link_libraries(${name}_test PRIVATE pelago::foundation pelago::test_support ${ARGN})
endfunction()

# pelago_test(NAME [LIBRARY...]) builds NAME_test.cpp and registers it as NAME.
function(pelago_test name)
    pelago_test_program(${name} ${ARGN})
    pelago_register(${name} unit)
endfunction()

# pelago_sandboxed_test(NAME [LIBRARY...]) does the same, but the test runs in tools/sandbox.sh.
function(pelago_sandboxed_test name)
    pelago_test_program(${name} ${ARGN})
    pelago_register(${name} sandbox ${PROJECT_SOURCE_DIR}/tools/sandbox.sh)
endfunction()

# pelago_host_program(NAME) builds NAME.cpp for the host that runs the tests, also in a cross build.
function(pelago_host_program name)
    if(NOT PELAGO_CROSS)
        add_executable(${name} ${name}.cpp)
        return()
    endif()
    find_program(PELAGO_HOST_CXX c++ REQUIRED)
    set(source ${CMAKE_CURRENT_SOURCE_DIR}/${name}.cpp)
    add_custom_command(OUTPUT ${name} DEPENDS ${source} VERBATIM
                       COMMAND ${PELAGO_HOST_CXX} -std=c++20 -O1 -Wall -Wextra -Werror -o ${name} ${source})
    add_custom_target(${name}Program DEPENDS ${CMAKE_CURRENT_BINARY_DIR}/${name})
    add_library(${name} INTERFACE)
    add_dependencies(${name} ${name}Program)
endfunction()

# pelago_wrap(TARGET CALL...) replaces each of these calls by the test's own __wrap_CALL.  -fno-builtin: a
# compiler that knows the call would assume that it does not read or change the test's variables.
function(pelago_wrap target)
    foreach(call ${ARGN})
        target_link_options(${target} PRIVATE -Wl,--wrap=${call})
        target_compile_options(${target} PRIVATE -fno-builtin-${call})
    endforeach()
    if(PELAGO_CROSS) # the cross compiler's linker lacks --wrap
        set_target_properties(${target} PROPERTIES RULE_LAUNCH_LINK
            "python3 ${PROJECT_SOURCE_DIR}/tests/macos/linkWrapped.py")
    endif()
endfunction()

# pelago_thread_locals(TARGET) is for targets with thread-local objects: without optimisation the cross
# compiler's code loses a register where it calls their constructors.
function(pelago_thread_locals target)
    if(PELAGO_CROSS)
        target_compile_options(${target} PRIVATE "SHELL:-Xclang -O1")
    endif()
endfunction()

# pelago_refuse_allocations(TARGET) lets a test count allocations and refuse them: allocations.h.
set(PELAGO_ALLOCATOR malloc calloc realloc strdup free)
function(pelago_refuse_allocations target)
    pelago_wrap(${target} ${PELAGO_ALLOCATOR})
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:pelago_allocations>)
endfunction()

# pelago_marked_sinks(NAME...) gives tests sinks that write their names: tests/support/markedSinks.cpp.
function(pelago_marked_sinks)
    foreach(name ${ARGN})
        set_target_properties(${name}_test PROPERTIES PELAGO_MARKED_SINKS ON)
    endforeach()
endfunction()

# pelago_knows_itself(NAME...) is for tests that ask the kernel for their own program, or start copies of it: in a
# cross build the kernel sees the runner, unless runner and program are one file.
function(pelago_knows_itself)
    if(PELAGO_CROSS)
        foreach(name ${ARGN})
            pelago_macho_program(${name}_test)
        endforeach()
    endif()
endfunction()

# pelago_threads_test(NAME) makes a test with threads or atomics run under the thread sanitizer, too.
add_custom_target(threadsTests)
function(pelago_threads_test name)
    add_dependencies(threadsTests ${name}_test)
    if(TEST ${name})
        set_property(TEST ${name} APPEND PROPERTY LABELS threads)
    endif()
endfunction()

# pelago_sandbox_test(NAME FILE [VAR=VALUE...]) registers a Python test file, which runs in tools/sandbox.sh.
function(pelago_sandbox_test name file)
    add_test(NAME ${name}
             COMMAND ${PROJECT_SOURCE_DIR}/tools/sandbox.sh python3 ${CMAKE_CURRENT_SOURCE_DIR}/${file}
             WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
    set_tests_properties(${name} PROPERTIES LABELS sandbox TIMEOUT ${PELAGO_TEST_SECONDS}
                         ENVIRONMENT "PYTHONDONTWRITEBYTECODE=1;${ARGN}")
endfunction()

# pelago_judges(TEST FILE...) declares that TEST checks these files; each FILE is the beginning of a path.
# tools/mutate.py runs TEST for a change in one of them, and reads this from judges.txt: "test|targets|files".
# It is called after the test was declared, since the test's properties contain the targets.
function(pelago_judges test)
    if(NOT TEST ${test})
        return() # not in this build
    endif()
    get_property(environment TEST ${test} PROPERTY ENVIRONMENT)
    string(REGEX MATCHALL "TARGET_FILE:[A-Za-z0-9_]+" targets "${environment}")
    list(TRANSFORM targets REPLACE "TARGET_FILE:" "")
    string(REGEX REPLACE "^fuzz[.](.*)" "\\1_fuzz" program "${test}")
    foreach(name ${test}_test ${program})
        if(TARGET ${name})
            list(APPEND targets ${name})
        endif()
    endforeach()
    string(FIND "${environment}" "${PELAGO_BUNDLE}" bundle)
    if(bundle GREATER -1)
        list(APPEND targets pelago_bundle)
    endif()
    get_property(fixtures TEST ${test} PROPERTY FIXTURES_REQUIRED)
    if(fixtures) # the packages, which contain everything that is built
        list(APPEND targets all)
    endif()
    list(JOIN targets " " targets)
    list(JOIN ARGN " " files)
    set_property(GLOBAL APPEND PROPERTY PELAGO_JUDGES "${test}|${targets}|${files}")
endfunction()

# pelago_write_judges() writes judges.txt; it is called after every pelago_judges().
function(pelago_write_judges)
    get_property(judges GLOBAL PROPERTY PELAGO_JUDGES)
    list(JOIN judges "\n" judges)
    file(WRITE ${PROJECT_BINARY_DIR}/judges.txt "${judges}\n")
endfunction()
