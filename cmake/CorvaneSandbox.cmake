# A host's own tests against a corvane-sandbox that CTest starts before them and stops after them.
# find_package(Corvane 1.0 REQUIRED COMPONENTS Sandbox) brings both functions. For Linux.
#
#   corvane_sandbox_fixture(NAME <fixture> [ARGUMENTS <argument>...])
#
# Makes a CTest fixture: a sandbox on a free port, with the arguments of corvane-sandbox, running
# while the fixture's tests do. Relative paths in the arguments count from the current binary
# directory. The tests <fixture>_start and <fixture>_stop start and stop it; CTest adds them to
# whatever tests are asked for. A sandbox that does not start leaves its tests "Not Run". One that
# could not be stopped, because CTest was killed, ends with CTest.
#
#   corvane_sandbox_test(NAME <test> FIXTURE <fixture> COMMAND <command> [<argument>...])
#
# As add_test(), for a test that finds the fixture's sandbox: its URL is in the environment variable
# CORVANE_SANDBOX_URL. Empty arguments are left out. Set further properties with
# set_tests_properties(), but FIXTURES_REQUIRED with set_property(TEST <test> APPEND ...).
#
# The tests of a fixture share one sandbox, its data and its faults, and ctest -j runs them at once.
# A test that changes what others see gets a fixture of its own.

function(corvane_sandbox_fixture)
    cmake_parse_arguments(PARSE_ARGV 0 fixture "" "NAME" "ARGUMENTS")
    if(NOT "${fixture_NAME}" MATCHES "^[A-Za-z0-9][A-Za-z0-9._-]*$" OR fixture_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "corvane_sandbox_fixture(NAME <fixture> [ARGUMENTS <argument>...]), "
            "with a name of letters, digits, '.', '_' and '-'")
    endif()
    _corvane_sandbox_script(script ${fixture_NAME})
    add_test(NAME ${fixture_NAME}_start
        COMMAND ${script} start $<TARGET_FILE:Corvane::Sandbox> ${fixture_ARGUMENTS})
    add_test(NAME ${fixture_NAME}_stop COMMAND ${script} stop)
    set_tests_properties(${fixture_NAME}_start PROPERTIES FIXTURES_SETUP ${fixture_NAME} TIMEOUT 60)
    set_tests_properties(${fixture_NAME}_stop PROPERTIES FIXTURES_CLEANUP ${fixture_NAME} TIMEOUT 60)
    set_property(GLOBAL APPEND PROPERTY CORVANE_SANDBOX_FIXTURES ${fixture_NAME})
endfunction()

function(corvane_sandbox_test)
    cmake_parse_arguments(PARSE_ARGV 0 test "" "NAME;FIXTURE" "COMMAND")
    if(NOT test_NAME OR NOT test_FIXTURE OR NOT test_COMMAND OR test_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR
            "corvane_sandbox_test(NAME <test> FIXTURE <fixture> COMMAND <command> [<argument>...])")
    endif()
    # CTest itself lets a test run without a fixture that nobody made.
    get_property(fixtures GLOBAL PROPERTY CORVANE_SANDBOX_FIXTURES)
    if(NOT test_FIXTURE IN_LIST fixtures)
        message(FATAL_ERROR "corvane_sandbox_test: there is no fixture \"${test_FIXTURE}\" yet: "
            "make it with corvane_sandbox_fixture()")
    endif()
    _corvane_sandbox_script(script ${test_FIXTURE})
    list(GET test_COMMAND 0 program)
    if(TARGET "${program}")
        # Not by list(), which breaks up arguments that hold a semicolon.
        string(LENGTH "${program}" length)
        string(SUBSTRING "${test_COMMAND}" ${length} -1 arguments)
        set(test_COMMAND "$<TARGET_FILE:${program}>${arguments}")
    endif()
    add_test(NAME ${test_NAME} COMMAND ${script} run ${test_COMMAND})
    set_property(TEST ${test_NAME} APPEND PROPERTY FIXTURES_REQUIRED ${test_FIXTURE})
endfunction()

# The script is told the fixture's folder: the port is known only when the sandbox runs, too late
# for a property of the test.
function(_corvane_sandbox_script variable fixture)
    set(${variable} sh "${CMAKE_CURRENT_FUNCTION_LIST_DIR}/sandbox-fixture"
        "${CMAKE_BINARY_DIR}/corvane-sandbox/${fixture}" PARENT_SCOPE)
endfunction()
