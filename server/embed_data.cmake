# Writes OUTPUT, a C++ source holding every file of INPUTS ('|'-separated paths) as bytes,
# found by file name through sorvan::server::embeddedData(). Run by the build (cmake -P).
string(REPLACE "|" ";" inputs "${INPUTS}")
set(arrays "")
set(entries "")
set(index 0)
foreach(input IN LISTS inputs)
    get_filename_component(name "${input}" NAME)
    file(READ "${input}" hex HEX)
    string(LENGTH "${hex}" hexLength)
    math(EXPR size "${hexLength} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
    string(APPEND arrays "const unsigned char kFile${index}[] = {${bytes}0};\n")
    string(APPEND entries "    {\"${name}\", kFile${index}, ${size}},\n")
    math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp" "// Generated from server/data/ by embed_data.cmake; do not edit.
#include <cstddef>
#include <string_view>

namespace sorvan::server {
namespace {
${arrays}
struct Entry {
    const char* name;
    const unsigned char* bytes;
    std::size_t size;
};
const Entry kEntries[] = {
${entries}    {nullptr, nullptr, 0},
};
}  // namespace

std::string_view embeddedData(std::string_view name) {
    for (const Entry* e = kEntries; e->name; ++e) {
        if (name == e->name) {
            return {reinterpret_cast<const char*>(e->bytes), e->size};
        }
    }
    return {};
}

}  // namespace sorvan::server
")
# Only a changed file is replaced, so the library is not rebuilt for nothing.
configure_file("${OUTPUT}.tmp" "${OUTPUT}" COPYONLY)
