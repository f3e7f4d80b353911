# Every code block in DOCUMENT that says which file it is from, in a comment right above it, holds
# that file word for word, and every block of C++, CMake or shell says so:
#     <!-- examples/minimal/main.cpp -->
#     ```cpp
file(READ "${SOURCE_DIR}/${DOCUMENT}" text)
set(languages "cpp|cmake|sh")
string(REGEX MATCHALL "```(${languages})\n" blocks "${text}")
string(REGEX MATCHALL "<!-- [^ \n]+ -->\n```(${languages})\n" quotes "${text}")
list(LENGTH blocks block_count)
list(LENGTH quotes quote_count)
if(NOT block_count EQUAL quote_count OR quote_count EQUAL 0)
    message(FATAL_ERROR "${DOCUMENT}: ${quote_count} of ${block_count} code blocks name their file")
endif()
foreach(quote IN LISTS quotes)
    string(REGEX REPLACE "<!-- ([^ \n]+) -->.*" "\\1" path "${quote}")
    file(READ "${SOURCE_DIR}/${path}" content)
    string(FIND "${text}" "${quote}${content}```\n" position)
    if(position EQUAL -1)
        message(SEND_ERROR "${DOCUMENT} does not quote ${path} as it is")
    endif()
endforeach()
