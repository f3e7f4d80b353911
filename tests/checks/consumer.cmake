# Builds and runs an outside project as its owner would, in WORK_DIR, against a fresh installation
# of BUILD_DIR that has been moved, or against the one in PREFIX. The MODE says which:
#
#   package     tests/consumer, which finds the package, with corvane-cli if CLI is on
#   source      the same with the library's sources inside
#   fetch       the same by FetchContent, from a local folder
#   pkgconfig   the same without CMake, by what pkg-config says
#   host        tests/consumer-host, whose tests have the installed sandbox
#   qml         tests/consumer-qml, whose test has it too
#   analysis    none: cppcheck, and Clang with all its warnings, read the installed headers
function(run)
    execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        list(JOIN ARGV " " command)
        message(FATAL_ERROR "${command}: ${result}\n${output}")
    endif()
    set(output "${output}" PARENT_SCOPE)
endfunction()

# refused(REASON COMMAND...): the command fails, and its output has the reason.
function(refused reason)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    string(REGEX REPLACE "[ \n]+" " " output "${output}")
    if(result EQUAL 0 OR NOT output MATCHES "${reason}")
        list(JOIN ARGN " " command)
        message(FATAL_ERROR "${command}: not refused by \"${reason}\": ${output}")
    endif()
endfunction()

# Sets PREFIX.
function(install_and_move)
    set(PREFIX "${WORK_DIR}/moved" PARENT_SCOPE)
    run(${CMAKE_COMMAND} --install "${BUILD_DIR}" --prefix "${WORK_DIR}/installed")
    # A package that only works where it was installed first would fail from here.
    file(RENAME "${WORK_DIR}/installed" "${WORK_DIR}/moved")
    foreach(file IN ITEMS include/corvane/Corvane include/corvane/corvane.h
            include/corvane/corvanetypes.h include/corvane/corvaneglobal.h)
        if(NOT EXISTS "${WORK_DIR}/moved/${file}")
            message(FATAL_ERROR "${file} is not installed")
        endif()
    endforeach()
    # Nor may it need the tree that it was built from.
    file(GLOB_RECURSE files "${WORK_DIR}/moved/*.cmake" "${WORK_DIR}/moved/*.pc")
    foreach(file IN LISTS files)
        file(READ "${file}" text)
        foreach(place IN ITEMS "${WORK_DIR}" "${BUILD_DIR}" "${SOURCE_DIR}")
            # Not the end of another path, nor the beginning of another name.
            string(REGEX REPLACE "([][+.*()^$?|])" "\\\\\\1" pattern "${place}")
            if(text MATCHES "(^|[^A-Za-z0-9_./}-]|-[IL])${pattern}($|[^A-Za-z0-9_.-])")
                message(FATAL_ERROR "${file} names ${place}")
            endif()
        endforeach()
    endforeach()
endfunction()

# pkg_config(VARIABLE ARGUMENT...): what it answers, as a list.
function(pkg_config variable)
    run(pkg-config ${ARGN})
    string(STRIP "${output}" output)
    separate_arguments(output UNIX_COMMAND "${output}")
    set(${variable} "${output}" PARENT_SCOPE)
endfunction()

function(run_consumers)
    foreach(standard IN ITEMS 17 20 23)
        run("${WORK_DIR}/build/consumer${standard}")
    endforeach()
endfunction()

# configure_and_build(PROJECT ARGUMENT...)
function(configure_and_build project)
    run(${configure} ${ARGN} -S "${SOURCE_DIR}/tests/${project}" -B "${WORK_DIR}/build")
    run(${CMAKE_COMMAND} --build "${WORK_DIR}/build")
endfunction()

function(test_package)
    set(components "")
    if(CLI)
        set(components -DCOMPONENTS=Cli)
    endif()
    configure_and_build(consumer ${components})
    run_consumers()

    set(refused_configure ${configure} --fresh -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/refused")
    string(REGEX MATCH "^[0-9]+" major "${VERSION}")
    math(EXPR next "${major} + 1")
    math(EXPR former "${major} - 1")
    foreach(other IN ITEMS ${next}.0 ${former}.0 ${major}.99)
        refused("compatible with requested version \"${other}\"" ${refused_configure} -DCORVANE_WANTED=${other})
    endforeach()
    refused("Corvane_FOUND to FALSE" ${refused_configure} -DCOMPONENTS=Unheard)
endfunction()

# test_inside(ARGUMENT...): the host decides whether Corvane is installed with it.
function(test_inside)
    configure_and_build(consumer ${ARGN})
    run_consumers()

    # The tools are not built: to install them would fail.
    run(${CMAKE_COMMAND} "-DCORVANE_CLI=${CLI}" "-DCORVANE_SANDBOX=${SANDBOX}" "${WORK_DIR}/build")
    run(${CMAKE_COMMAND} --install "${WORK_DIR}/build" --prefix "${WORK_DIR}/without")
    file(GLOB_RECURSE files RELATIVE "${WORK_DIR}/without" "${WORK_DIR}/without/*")
    if(NOT files STREQUAL "bin/consumer17")
        message(FATAL_ERROR "installed instead of the host alone: ${files}")
    endif()

    run(${CMAKE_COMMAND} -DCORVANE_CLI=OFF -DCORVANE_SANDBOX=OFF -DCORVANE_INSTALL=ON "${WORK_DIR}/build")
    run(${CMAKE_COMMAND} --install "${WORK_DIR}/build" --prefix "${WORK_DIR}/with")
    if(NOT EXISTS "${WORK_DIR}/with/include/corvane/Corvane")
        message(FATAL_ERROR "not installed with the host, though asked for")
    endif()
endfunction()

function(test_pkgconfig)
    pkg_config(version --modversion corvane)
    if(NOT version STREQUAL VERSION)
        message(FATAL_ERROR "pkg-config: version ${version} instead of ${VERSION}")
    endif()
    # Linkers find the system's own folder without being told.
    pkg_config(libdir --variable=libdir corvane)
    if(NOT EXISTS "${libdir}/libCorvane.so")
        message(FATAL_ERROR "pkg-config: no library in ${libdir}")
    endif()
    pkg_config(flags --cflags --libs corvane)
    separate_arguments(own_flags UNIX_COMMAND "${CXX_FLAGS}")
    set(sources "${SOURCE_DIR}/tests/consumer")
    file(MAKE_DIRECTORY "${WORK_DIR}/build")
    # Qt's own files let the compiler warn of Qt's headers.
    run(${CXX} ${own_flags} -std=c++17
        "${sources}/main.cpp" "${sources}/forwarded.cpp" ${flags} -o "${WORK_DIR}/build/consumer")
    run(${CMAKE_COMMAND} -E env "LD_LIBRARY_PATH=${PREFIX}/${LIBDIR}"
        "${WORK_DIR}/build/consumer")
endfunction()

function(test_host)
    configure_and_build(consumer-host)
    run(${CMAKE_CTEST_COMMAND} --test-dir "${WORK_DIR}/build" -j 4 --no-tests=error --output-on-failure)
    run(${CMAKE_COMMAND} -E env
        "PATH=${PREFIX}/bin:${PREFIX}/share/corvane-sandbox:$ENV{PATH}"
        "${SOURCE_DIR}/tests/consumer-host/run-tests" "${WORK_DIR}/build/tst_host")

    # What a build without the tools does not install, nor the packages without corvane-tools.
    file(GLOB targets "${PREFIX}/${LIBDIR}/cmake/Corvane/Corvane*Targets*.cmake")
    list(FILTER targets INCLUDE REGEX "/Corvane(Cli|Sandbox)Targets")
    if(NOT targets MATCHES "/CorvaneSandboxTargets")
        message(FATAL_ERROR "the sandbox's targets are not installed")
    endif()
    file(REMOVE ${targets})
    run(${configure} -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/without")
    foreach(component IN ITEMS Cli Sandbox)
        string(TOUPPER "${component}" option)
        refused("${component} is not installed: build Corvane with -DCORVANE_${option}=ON, or install corvane-tools\\."
            ${configure} --fresh -S "${SOURCE_DIR}/tests/consumer" -B "${WORK_DIR}/refused"
            -DCOMPONENTS=${component})
    endforeach()
endfunction()

function(test_qml)
    configure_and_build(consumer-qml)
    run(${CMAKE_CTEST_COMMAND} --test-dir "${WORK_DIR}/build" --no-tests=error --output-on-failure)
endfunction()

function(test_analysis)
    set(headers "${PREFIX}/include/corvane")
    file(GLOB includes RELATIVE "${headers}" "${headers}/*")
    list(TRANSFORM includes REPLACE "(.+)" "#include <\\1>\n")
    set(source "${WORK_DIR}/headers.cpp")
    file(WRITE "${source}" ${includes})
    # Qt's are not judged.
    pkg_config(qt_flags --cflags Qt6Core)
    list(TRANSFORM qt_flags REPLACE "^-I" "-isystem")
    # All warnings, but those that are of every class, or of all C++ of this century.
    set(warnings -Weverything -Werror -Wno-padded -Wno-c++98-compat -Wno-c++98-compat-pedantic -Wno-c++20-compat)
    set(compile clang++ -fPIC "-I${headers}" ${qt_flags} ${warnings})
    foreach(standard IN ITEMS 17 20 2b)
        run(${compile} -std=c++${standard} -fsyntax-only "${source}")
    endforeach()
    run(${compile} -std=c++17 --analyze -Xclang -analyzer-werror -o "${WORK_DIR}/headers.plist" "${source}")
    run(cppcheck --enable=warning,style,performance,portability --inconclusive --error-exitcode=1
        --std=c++17 --library=qt -I "${headers}" "${source}")
endfunction()

file(REMOVE_RECURSE "${WORK_DIR}")
if(NOT PREFIX AND NOT MODE MATCHES "^(source|fetch)$")
    install_and_move()
endif()
set(configure ${CMAKE_COMMAND} -G "${GENERATOR}" "-DCMAKE_PREFIX_PATH=${PREFIX}"
    "-DCMAKE_CXX_COMPILER=${CXX}" "-DCMAKE_CXX_FLAGS=${CXX_FLAGS}")
if(MODE MATCHES "^(source|fetch)$")
    string(TOUPPER "${MODE}" how)
    test_inside("-DCORVANE_${how}=${SOURCE_DIR}")
else()
    set(ENV{PKG_CONFIG_PATH} "${PREFIX}/${LIBDIR}/pkgconfig")
    cmake_language(CALL test_${MODE})
endif()
