# Builds and runs tests/consumer as its owner would, in WORK_DIR: with MODE "package" against a
# fresh installation of BUILD_DIR, with MODE "source" with the library's sources inside.
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "${command}: ${result}\n${output}")
    endif()
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
if(MODE STREQUAL "package")
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
else()
    set(corvane "-DCORVANE_SOURCE=${SOURCE_DIR}")
endif()

run(${CMAKE_COMMAND} -G "${GENERATOR}" -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/build" ${corvane}
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
foreach(standard IN ITEMS 17 20 23)
    run("${WORK_DIR}/build/consumer${standard}")
endforeach()
