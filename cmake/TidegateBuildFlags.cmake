# tidegate_build_flags: warnings and sanitizers for the project's own targets. Linked privately, so
# that nothing of it reaches a user of the library.

add_library(tidegate_build_flags INTERFACE)

target_compile_options(
  tidegate_build_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Werror=format
            $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
            $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety-beta>
            $<$<BOOL:${TIDEGATE_WERROR}>:-Werror>)

if(TIDEGATE_SANITIZE STREQUAL "address")
  # Without the check of pointers to a class: it opens a pipe to look at memory. Where there are no descriptors, as
  # in one of the stress programs, it reports the memory as unreadable.
  set(tidegate_sanitizer_flags -fsanitize=address,undefined -fno-sanitize=vptr
                               -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(TIDEGATE_SANITIZE STREQUAL "thread")
  set(tidegate_sanitizer_flags -fsanitize=thread -fno-omit-frame-pointer)
elseif(TIDEGATE_SANITIZE STREQUAL "")
  set(tidegate_sanitizer_flags "")
else()
  message(FATAL_ERROR "TIDEGATE_SANITIZE is \"${TIDEGATE_SANITIZE}\"; "
                      "it must be empty, address or thread.")
endif()

if(TIDEGATE_FUZZ)
  list(APPEND tidegate_sanitizer_flags -fsanitize=fuzzer-no-link)
endif()

# gcc reports code that the sanitizers insert as uses of uninitialized values, even inside <regex>. The builds
# without sanitizers keep the warning.
if(tidegate_sanitizer_flags AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(tidegate_build_flags INTERFACE -Wno-maybe-uninitialized)
endif()

target_compile_options(tidegate_build_flags INTERFACE ${tidegate_sanitizer_flags})
target_link_options(tidegate_build_flags INTERFACE ${tidegate_sanitizer_flags})
