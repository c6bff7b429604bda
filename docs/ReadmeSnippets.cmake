# cmake -DREADME=README.md -DOUTPUT_DIR=dir -P ReadmeSnippets.cmake
#
# Writes the C++ examples of the README, one file per "### " section of it,
# for the API reference to show: the section "Message queues" gives
# message-queues.cpp. The README stays the one place where they are written.

file(STRINGS "${README}" lines)
file(MAKE_DIRECTORY "${OUTPUT_DIR}")
set(section "")
set(in_code FALSE)
set(written "")
foreach(line IN LISTS lines)
    if(in_code)
        if(line MATCHES "^```")
            set(in_code FALSE)
        else()
            file(APPEND "${OUTPUT_DIR}/${section}.cpp" "${line}\n")
        endif()
    elseif(line MATCHES "^### (.+)$")
        string(TOLOWER "${CMAKE_MATCH_1}" section)
        string(REGEX REPLACE "[^a-z0-9]+" "-" section "${section}")
        file(WRITE "${OUTPUT_DIR}/${section}.cpp" "")
        list(APPEND written "${section}")
    elseif(line MATCHES "^```cpp" AND NOT section STREQUAL "")
        set(in_code TRUE)
    endif()
endforeach()
if(NOT written)
    message(FATAL_ERROR "no examples found in ${README}")
endif()
