# comm_register_test(NAME LABELS label... [TIMEOUT s] [ENVIRONMENT var=value...] COMMAND cmd arg...)
# Registers a test with CTest: run in the tests' environment
# (COMM_TEST_ENVIRONMENT, unless ENVIRONMENT replaces it), stopped after
# TIMEOUT seconds (120 by default); a generator expression in COMMAND that gives
# a list gives that many arguments. Every test names at least one label, so
# that `ctest -L <label>` can pick any part of the suite; the README lists them.
function(comm_register_test name)
    cmake_parse_arguments(ARG "" "TIMEOUT" "LABELS;ENVIRONMENT;COMMAND" ${ARGN})
    if(NOT ARG_LABELS)
        message(FATAL_ERROR "test ${name}: give it LABELS (see the README's list)")
    endif()
    if(NOT ARG_COMMAND)
        message(FATAL_ERROR "test ${name}: no COMMAND")
    endif()
    if(NOT ARG_TIMEOUT)
        set(ARG_TIMEOUT 120)
    endif()
    if(NOT ARG_ENVIRONMENT)
        set(ARG_ENVIRONMENT ${COMM_TEST_ENVIRONMENT})
    endif()
    add_test(NAME ${name} COMMAND ${ARG_COMMAND} COMMAND_EXPAND_LISTS)
    set_tests_properties(${name} PROPERTIES
        TIMEOUT ${ARG_TIMEOUT} ENVIRONMENT "${ARG_ENVIRONMENT}" LABELS "${ARG_LABELS}")
endfunction()

# comm_add_skip_test(NAME LABELS label... MESSAGE text): a test that only says
# why the tests it stands for cannot run in this build, and is reported skipped.
function(comm_add_skip_test name)
    cmake_parse_arguments(ARG "" "MESSAGE" "LABELS" ${ARGN})
    add_test(NAME ${name} COMMAND sh -c "echo \"SKIP: $1\"; exit 77" sh "${ARG_MESSAGE}")
    set_tests_properties(${name} PROPERTIES LABELS "${ARG_LABELS}" SKIP_RETURN_CODE 77)
endfunction()
