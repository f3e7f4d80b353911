# LIBRARY exports the class and its meta-object and nothing else, adds no virtual function to those of
# QObject in QT_CORE, needs no GUI library, and has no means to log, print or read the environment.
# COMPILER is CMake's id of what compiled it.

# Whatever else shows up under Corvane:: is either a new operation or a helper that grew public.
set(members
    Corvane metaObject qt_metacast qt_metacall staticMetaObject
    setServerUrl serverUrl setProductCode productCode
    checkForUpdate downloadUpdate fetchPurchasePlans startPayPalPurchase resumePayPalPurchase
    capturePayPalPurchase sendUsage
    usageSent updateChecked updateDownloaded purchasePlansReceived purchaseStarted purchaseCaptured
    networkError
    checkConfiguration endpoint postJson connectReply handleReply parseUpdate saveDownload
    parsePurchaseStart parsePurchaseCapture)
list(JOIN members "|" members)
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
string(REGEX MATCHALL "[^\n]+" symbols "${symbols}")
if(NOT symbols)
    message(FATAL_ERROR "nm lists no symbol")
endif()
foreach(symbol IN LISTS symbols)
    if(NOT symbol MATCHES "^[0-9a-f]+ [A-Z] (Corvane::~?(${members})($|\\()|(vtable|typeinfo|typeinfo name) for Corvane$)")
        message(SEND_ERROR "exported beside the class: ${symbol}")
    endif()
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
