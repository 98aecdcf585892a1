# Fails when a code block of README.md marked with <!-- example: FILE --> is
# not found verbatim in FILE (so the README cannot drift from code the build
# compiles, nor from the qmake project the install check builds). Code may
# hold ';', so the blocks are walked by position, not as CMake lists.
file(READ ${README} readme)
set(found 0)
foreach(attempt RANGE 50) # more than the README will ever hold
  string(REGEX MATCH "<!-- example: ([^ ]+) -->\n```[a-z]*\n([^`]*)```" block "${readme}")
  if(NOT block)
    break()
  endif()
  set(example_file ${SOURCE_DIR}/${CMAKE_MATCH_1})
  set(code "${CMAKE_MATCH_2}")
  file(READ ${example_file} example)
  string(FIND "${example}" "${code}" position)
  if(position EQUAL -1)
    message(FATAL_ERROR "README.md's example from ${example_file} is not in that file verbatim")
  endif()
  message(STATUS "README example found in ${example_file}")
  math(EXPR found "${found} + 1")
  string(FIND "${readme}" "${block}" at)
  string(LENGTH "${block}" length)
  math(EXPR rest "${at} + ${length}")
  string(SUBSTRING "${readme}" ${rest} -1 readme)
endforeach()
if(found EQUAL 0)
  message(FATAL_ERROR "README.md has no marked example block")
endif()
