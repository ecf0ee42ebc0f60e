# The README's example is examples/first_steps.cpp, which is compiled: the lines between the two marks there
# are one of the README's blocks of C++.

get_filename_component(root "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)

if(NOT EXISTS "${root}/README.md")
  message(FATAL_ERROR "There is no README.md to compare examples/first_steps.cpp with")
endif()
file(READ "${root}/README.md" readme)
file(READ "${root}/examples/first_steps.cpp" source)

set(begin "// [first steps]\n")
set(end "// [/first steps]\n")
string(FIND "${source}" "${begin}" first)
string(FIND "${source}" "${end}" last)
string(LENGTH "${begin}" length)
math(EXPR first_line "${first} + ${length}")
math(EXPR size "${last} - ${first_line}")
if(first LESS 0 OR size LESS_EQUAL 0)
  message(FATAL_ERROR "examples/first_steps.cpp has lost its marks")
endif()
string(SUBSTRING "${source}" ${first_line} ${size} example)

string(FIND "${readme}" "\n```cpp\n${example}```\n" found)
if(found LESS 0)
  message(FATAL_ERROR "No block of C++ in README.md equals these lines of examples/first_steps.cpp:\n${example}")
endif()
