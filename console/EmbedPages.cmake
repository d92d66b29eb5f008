# Writes the C++ source that holds FILES as byte arrays. Runs with cmake -P.
set(arrays "")
set(entries "")
set(number 0)
foreach(file ${FILES})
  file(READ ${file} bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
  get_filename_component(name ${file} NAME)
  string(APPEND arrays "constexpr char kPage${number}[] = {${bytes}};\n")
  string(APPEND entries "        {\"/${name}\", {kPage${number}, sizeof(kPage${number})}},\n")
  math(EXPR number "${number} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"Pages.h\"

namespace Console {

namespace {

${arrays}
}  // namespace

const std::vector<Page>& Pages() {
    static const std::vector<Page> pages{
${entries}    };
    return pages;
}

}  // namespace Console
")
