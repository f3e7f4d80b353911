# Every code block in DOCUMENT that says which file it is from, in a comment right above it, holds
# that file word for word, or with "from", lines of it that stand together there:
#     <!-- examples/minimal/main.cpp -->
#     ```cpp
#     <!-- from examples/desktop/updates.cpp -->
#     ```cpp
# Every block of the LANGUAGES, which are names with bars between them, says so.
file(READ "${SOURCE_DIR}/${DOCUMENT}" text)
string(REGEX MATCHALL "\n```(${LANGUAGES})\n" blocks "${text}")
string(REGEX MATCHALL "<!-- (from )?[^ \n]+ -->\n```(${LANGUAGES})\n" quotes "${text}")
list(LENGTH blocks block_count)
list(LENGTH quotes quote_count)
if(NOT block_count EQUAL quote_count OR quote_count EQUAL 0)
    message(FATAL_ERROR "${DOCUMENT}: ${quote_count} of ${block_count} code blocks name their file")
endif()
foreach(quote IN LISTS quotes)
    # What is between this quote's head and the end of its block; the next one is further down.
    string(FIND "${text}" "${quote}" begin)
    string(LENGTH "${quote}" length)
    math(EXPR begin "${begin} + ${length}")
    string(SUBSTRING "${text}" ${begin} -1 text)
    string(FIND "${text}" "```\n" end)
    string(SUBSTRING "${text}" 0 ${end} block)

    string(REGEX REPLACE "<!-- (from )?([^ \n]+) -->.*" "\\2" path "${quote}")
    file(READ "${SOURCE_DIR}/${path}" content)
    string(FIND "\n${content}" "\n${block}" position)
    if(position EQUAL -1 OR (NOT quote MATCHES "^<!-- from " AND NOT block STREQUAL content))
        string(REGEX REPLACE "\n.*" "" line "${block}")
        message(SEND_ERROR "${DOCUMENT} does not quote ${path} as it is: ${line} ...")
    endif()
endforeach()
