# Builds and runs an outside project as its owner would, in WORK_DIR: with MODE "package",
# tests/consumer against a fresh installation of BUILD_DIR; with MODE "source", the same with the
# library's sources inside; with MODE "host", tests/consumer-host, whose tests have the installed
# sandbox.
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "${command}: ${result}\n${output}")
    endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
if(MODE STREQUAL "source")
    set(corvane "-DCORVANE_SOURCE=${SOURCE_DIR}")
else()
    run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/installed")
    # A package that only works where it was installed first would fail from here.
    file(RENAME "${WORK_DIR}/installed" "${WORK_DIR}/moved")
    set(corvane "-DCMAKE_PREFIX_PATH=${WORK_DIR}/moved")
    foreach(file IN ITEMS include/corvane/Corvane include/corvane/corvane.h
            include/corvane/corvanetypes.h include/corvane/corvaneglobal.h)
        if(NOT EXISTS "${WORK_DIR}/moved/${file}")
            message(FATAL_ERROR "${file} is not installed")
        endif()
    endforeach()
endif()
set(project consumer)
if(MODE STREQUAL "host")
    set(project consumer-host)
endif()

set(configure ${CMAKE_COMMAND} -G "${GENERATOR}" ${corvane}
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${configure} -S "${SOURCE_DIR}/tests/${project}" -B "${WORK_DIR}/build")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
if(NOT MODE STREQUAL "host")
    foreach(standard IN ITEMS 17 20 23)
        run("${WORK_DIR}/build/consumer${standard}")
    endforeach()
    return()
endif()

run(${CMAKE_CTEST_COMMAND} --test-dir "${WORK_DIR}/build" -j 4 --no-tests=error --output-on-failure)
run(${CMAKE_COMMAND} -E env "PATH=${WORK_DIR}/moved/bin:${WORK_DIR}/moved/share/corvane-sandbox:$ENV{PATH}"
    "${SOURCE_DIR}/tests/consumer-host/run-tests" "${WORK_DIR}/build/tst_host")

# What a build without the sandbox does not install.
file(GLOB targets "${WORK_DIR}/moved/lib*/cmake/Corvane/CorvaneSandboxTargets*.cmake"
    "${WORK_DIR}/moved/lib*/*/cmake/Corvane/CorvaneSandboxTargets*.cmake")
if(NOT targets)
    message(FATAL_ERROR "the sandbox's targets are not installed")
endif()
file(REMOVE ${targets})
run(${configure} -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/without")
execute_process(
    COMMAND ${configure} -S "${SOURCE_DIR}/tests/consumer-host" -B "${WORK_DIR}/refused"
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
string(REGEX REPLACE "[ \n]+" " " output "${output}")
if(result EQUAL 0 OR NOT output MATCHES "built without its sandbox: build it with -DCORVANE_SANDBOX=ON")
    message(FATAL_ERROR "a package without the sandbox is not refused as it should be: ${output}")
endif()
