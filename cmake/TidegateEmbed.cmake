# Writes the C++ file of agent/page_files.h:
#   cmake -D OUTPUT=page_files.cc -D "FILES=/a/index.html;/b/main.js" -P TidegateEmbed.cmake
# index.html is served at /, documents below /docs/, the others below /assets/, by their names.

set(type_html "text/html; charset=utf-8")
set(type_css "text/css; charset=utf-8")
set(type_js "text/javascript; charset=utf-8")
set(type_svg "image/svg+xml")
set(type_md "text/plain; charset=utf-8")

set(arrays)
set(rows)
set(index 0)
foreach(file IN LISTS FILES)
  get_filename_component(name ${file} NAME)
  get_filename_component(extension ${file} LAST_EXT)
  string(SUBSTRING ${extension} 1 -1 extension)
  set(path /assets/${name})
  if(name STREQUAL "index.html")
    set(path /)
  elseif(extension STREQUAL "md")
    set(path /docs/${name})
  endif()

  file(READ ${file} content)
  # The map is not there.
  string(REGEX REPLACE "\n//# sourceMappingURL=[^\n]*" "" content "${content}")
  string(SHA256 hash "${content}")
  string(SUBSTRING ${hash} 0 32 hash)
  string(HEX "${content}" bytes)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(................................)" "\\1\n" bytes "${bytes}")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")

  string(APPEND arrays "constexpr char kFile${index}[] = {\n${bytes}};\n")
  string(APPEND rows "    {\"${path}\", \"${type_${extension}}\", \"\\\"${hash}\\\"\", {kFile${index}, ${size}}},\n")
  math(EXPR index "${index} + 1")
endforeach()

file(
  WRITE ${OUTPUT}
  "#include \"agent/page_files.h\"

namespace tidegate::agent {
namespace {

${arrays}
constexpr PageFile kFiles[] = {
${rows}};

}  // namespace

ConstList<PageFile> PageFiles() { return kFiles; }

}  // namespace tidegate::agent
")
