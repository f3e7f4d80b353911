# corvane_strict(TARGET): the project's warnings and Qt's strict macros, for this
# target alone. What a host sets for its own code stays the host's choice; the
# development presets turn these warnings into errors. A target that has nothing
# but headers sets them for whoever compiles these.
function(corvane_strict target)
    get_target_property(type ${target} TYPE)
    set(scope PRIVATE)
    if(type STREQUAL "INTERFACE_LIBRARY")
        set(scope INTERFACE)
    endif()
    target_compile_definitions(${target} ${scope}
        QT_NO_KEYWORDS
        QT_NO_FOREACH
        QT_NO_CAST_FROM_ASCII
        QT_NO_CAST_TO_ASCII
        QT_NO_CAST_FROM_BYTEARRAY
        QT_NO_URL_CAST_FROM_STRING
        QT_NO_NARROWING_CONVERSIONS_IN_CONNECT
        QT_NO_CONTEXTLESS_CONNECT
        QT_NO_JAVA_STYLE_ITERATORS
        QT_STRICT_ITERATORS
        # Nothing that Qt 6.12 or any version before it calls deprecated. Qt 6.5
        # renamed the macro, so both names are set.
        QT_DISABLE_DEPRECATED_BEFORE=0x060C00
        QT_DISABLE_DEPRECATED_UP_TO=0x060C00)
    if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
        target_compile_options(${target} ${scope}
            -Wall -Wextra -Wpedantic
            -Wcast-align -Wcast-qual -Wconversion -Wdouble-promotion -Wextra-semi -Wformat=2
            -Wimplicit-fallthrough -Wmissing-declarations -Wnon-virtual-dtor -Wnull-dereference
            -Wold-style-cast -Woverloaded-virtual -Wshadow -Wsign-conversion -Wswitch-enum
            -Wundef -Wunused -Wzero-as-null-pointer-constant)
    endif()
    # QSKIP(text) leaves out a macro's last arguments, as C++ allows from 20 on.
    if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
        if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 19)
            target_compile_options(${target} ${scope} -Wno-gnu-zero-variadic-macro-arguments)
        elseif(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 20)
            target_compile_options(${target} ${scope} -Wno-c++20-extensions)
        else()
            target_compile_options(${target} ${scope} -Wno-variadic-macro-arguments-omitted)
        endif()
    endif()
endfunction()
