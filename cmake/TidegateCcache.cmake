# Compiles through ccache where it is installed, unless the user chose a launcher.

if(NOT DEFINED CMAKE_CXX_COMPILER_LAUNCHER)
  find_program(TIDEGATE_CCACHE_PROGRAM ccache)
  mark_as_advanced(TIDEGATE_CCACHE_PROGRAM)
  if(TIDEGATE_CCACHE_PROGRAM)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${TIDEGATE_CCACHE_PROGRAM}")
  endif()
endif()
