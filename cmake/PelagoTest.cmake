# What takes longer hangs.
set(PELAGO_TEST_SECONDS 300 CACHE STRING "how long one test may take")

# A failed allocation is an answer here, not an error of the sanitizer's.
set(PELAGO_TEST_ENVIRONMENT "ASAN_OPTIONS=allocator_may_return_null=1;TSAN_OPTIONS=allocator_may_return_null=1")

# Status 0 is not enough: all tests must have run.
set(PELAGO_COMPLETE ${PROJECT_SOURCE_DIR}/tests/support/complete.sh)

# pelago_test(NAME [LIBRARY...]) builds NAME_test.cpp and registers it as NAME.
function(pelago_test name)
    add_executable(${name}_test ${name}_test.cpp)
    target_link_libraries(${name}_test PRIVATE pelago::foundation pelago::test_support ${ARGN})
    add_test(NAME ${name} COMMAND ${PELAGO_COMPLETE} $<TARGET_FILE:${name}_test>)
    set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT ${PELAGO_TEST_SECONDS}
                         ENVIRONMENT "${PELAGO_TEST_ENVIRONMENT}")
endfunction()

# pelago_wrap(TARGET CALL...) puts the test's own __wrap_CALL in the place of each of these calls.  What
# that reads and changes is more than a compiler knows of the call, so it must not know the call.
function(pelago_wrap target)
    foreach(call ${ARGN})
        target_link_options(${target} PRIVATE -Wl,--wrap=${call})
        target_compile_options(${target} PRIVATE -fno-builtin-${call})
    endforeach()
endfunction()

# pelago_refuse_allocations(TARGET) lets a test count allocations and refuse them: allocations.h.
function(pelago_refuse_allocations target)
    pelago_wrap(${target} malloc calloc realloc strdup free)
    target_sources(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/allocations.cpp)
endfunction()

# pelago_threads_test(NAME) has a test run under the thread sanitizer, too: it has threads or atomics.
add_custom_target(threadsTests)
function(pelago_threads_test name)
    add_dependencies(threadsTests ${name}_test)
    set_property(TEST ${name} APPEND PROPERTY LABELS threads)
endfunction()

# pelago_sandbox_program_test(NAME TARGET) runs a test program on a machine of its own.
function(pelago_sandbox_program_test name target)
    add_test(NAME ${name} COMMAND ${PROJECT_SOURCE_DIR}/tools/sandbox.sh ${PELAGO_COMPLETE} $<TARGET_FILE:${target}>)
    set_tests_properties(${name} PROPERTIES LABELS sandbox TIMEOUT ${PELAGO_TEST_SECONDS}
                         ENVIRONMENT "${PELAGO_TEST_ENVIRONMENT}")
endfunction()

# pelago_sandbox_test(NAME FILE [VAR=VALUE...]) runs a Python test file on a machine of its own.
function(pelago_sandbox_test name file)
    add_test(NAME ${name}
             COMMAND ${PROJECT_SOURCE_DIR}/tools/sandbox.sh python3 ${CMAKE_CURRENT_SOURCE_DIR}/${file}
             WORKING_DIRECTORY ${PROJECT_SOURCE_DIR})
    set_tests_properties(${name} PROPERTIES LABELS sandbox TIMEOUT ${PELAGO_TEST_SECONDS}
                         ENVIRONMENT "PYTHONDONTWRITEBYTECODE=1;${ARGN}")
endfunction()
