# Fails when the code block of README.md marked with <!-- example: FILE -->
# is not found verbatim in FILE (so the README cannot drift from code the
# build compiles). One marked block; code may hold ';', so no CMake lists.
file(READ ${README} readme)
string(REGEX MATCH "<!-- example: ([^ ]+) -->\n```cpp\n([^`]*)```" block "${readme}")
if(NOT block)
  message(FATAL_ERROR "README.md has no marked example block")
endif()
set(example_file ${SOURCE_DIR}/${CMAKE_MATCH_1})
set(code "${CMAKE_MATCH_2}")
file(READ ${example_file} example)
string(FIND "${example}" "${code}" position)
if(position EQUAL -1)
  message(FATAL_ERROR "README.md's example is not in ${example_file} verbatim")
endif()
message(STATUS "README example found in ${example_file}")
