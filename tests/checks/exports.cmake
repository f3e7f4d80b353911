# LIBRARY exports what the list SYMBOLS says and nothing else, adds no virtual function to those of QObject
# in QT_CORE, needs no GUI library, and has no means to log, print or read the environment.
# COMPILER is CMake's id of what compiled it.

set(judged cat)
if(COMPILER MATCHES "Clang")
    # Inline functions and constants of namespace std, which libstdc++ declares visible. GCC hides them by
    # -fvisibility-inlines-hidden all the same, Clang does not.
    set(judged sed -E "/ [VW] _ZN?K?St/d")
endif()
execute_process(
    COMMAND nm --dynamic --defined-only "${LIBRARY}"
    COMMAND ${judged}
    COMMAND c++filt
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
# Without addresses and kinds. Constructors and destructors have several symbols each.
string(REGEX REPLACE "(^|\n)[0-9a-f]+ [A-Z] " "\\1" symbols "${symbols}")
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
list(REMOVE_DUPLICATES symbols)
file(STRINGS "${SYMBOLS}" expected)
set(added ${symbols})
list(REMOVE_ITEM added ${expected})
set(removed ${expected})
list(REMOVE_ITEM removed ${symbols})
foreach(symbol IN LISTS removed)
    message(SEND_ERROR "exported no more: ${symbol}")
endforeach()
foreach(symbol IN LISTS added)
    message(SEND_ERROR "exported, but not in ${SYMBOLS}: ${symbol}")
endforeach()

# What a table of virtual functions takes in the library, as hexadecimal digits.
function(table_size variable library class)
    execute_process(COMMAND nm --dynamic --print-size --defined-only "${library}"
        OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
    if(NOT symbols MATCHES "[0-9a-f]+ ([0-9a-f]+) [A-Z] _ZTV${class}[@\n]")
        message(FATAL_ERROR "${library} has no table of ${class}")
    endif()
    set(${variable} "${CMAKE_MATCH_1}" PARENT_SCOPE)
endfunction()
table_size(own "${LIBRARY}" 7Corvane)
table_size(inherited "${QT_CORE}" 7QObject)
if(NOT own STREQUAL inherited)
    message(SEND_ERROR "a virtual function was added: a table of 0x${own} bytes, QObject's of 0x${inherited}")
endif()

execute_process(COMMAND readelf --dynamic --wide "${LIBRARY}"
    OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*\\[[^]\n]+\\]" needed "${dynamic}")
list(TRANSFORM needed REPLACE ".*\\[([^]]+)\\]" "\\1")
foreach(library IN LISTS needed)
    if(NOT library MATCHES "^lib(Qt6Core|Qt6Network|stdc\\+\\+|gcc_s|m|c)\\.so")
        message(SEND_ERROR "needed beside Qt Core and Network: ${library}")
    endif()
endforeach()
if(NOT dynamic MATCHES "\\(SONAME\\)[^\n]*\\[libCorvane\\.so\\.${SOVERSION}\\]")
    message(SEND_ERROR "the soname is not libCorvane.so.${SOVERSION}")
endif()

execute_process(COMMAND nm --dynamic --demangle --undefined-only "${LIBRARY}"
    OUTPUT_VARIABLE used COMMAND_ERROR_IS_FATAL ANY)
set(means "getenv|qEnvironmentVariable|QSettings|QMessageLogger|QLoggingCategory|printf|puts|fwrite|ostream")
string(APPEND means "|QNetworkDiskCache|QSaveFile|QTemporaryFile|QStandardPaths|QTextStream::QTextStream|QDebug::QDebug\\(Q(tMsgType|IODevice|String)")
if(NOT COMPILER MATCHES "Clang")
    # Without optimisation, Clang leaves in how Qt's meta-types write to a QDebug that they are
    # given, which nothing calls. The names above are of what makes one.
    string(APPEND means "|QDebug")
endif()
if(used MATCHES "${means}")
    message(SEND_ERROR "logs, prints or reads the environment: ${CMAKE_MATCH_0}")
endif()
