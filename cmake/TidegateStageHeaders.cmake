# tidegate_stage_headers(<folder> <header>...): writes headers of include/ and src/ as one tree, as users get them.
#
# There each include names its file relative to the including one ("../metrics/metric.h"). A compiler looks there
# first, so that a project with a `metrics/metric.h` of its own, anywhere in its include path, never gets that one.
# Lines keep their numbers. A header that changes is written anew by the next build.
#
# Whoever includes other headers of src/ as well, as this project's own targets do, needs include/ and src/ first in
# the include path: a header must not come from both trees.
function(tidegate_stage_headers folder)
  foreach(header IN LISTS ARGN)
    string(REGEX REPLACE "^(include|src)/" "" staged ${header})
    cmake_path(GET staged PARENT_PATH below)
    string(REGEX REPLACE "[^/]+" ".." up "${below}")
    file(READ ${PROJECT_SOURCE_DIR}/${header} text)
    string(REGEX REPLACE "(^|\n)#include \"" "\\1#include \"${up}/" text "${text}")
    set(before "")
    if(EXISTS ${folder}/${staged})
      file(READ ${folder}/${staged} before)
    endif()
    if(NOT text STREQUAL before)
      file(WRITE ${folder}/${staged} "${text}")
    endif()
    set_property(DIRECTORY ${PROJECT_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  endforeach()
endfunction()
