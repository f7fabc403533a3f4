// line_parse + get_section_by_prefix on any header line.
// Property: no out-of-bounds access; the result is -1 or a section count of 1..18;
// every section lies inside the record's own text; a section found by prefix
// begins with that prefix.
#include "util/halyx_string.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string line(reinterpret_cast<const char *>(data), size); // ends at a NUL, as fgets text
    line_sections ls;
    int count = line_parse(&ls, line.c_str());
    if (count == -1) return 0;
    if (count < 1 || count > LINE_PARSE_MAX_SECTIONS) abort();
    for (int i = 0; i < count; i++)
        if (ls.sections[i] < ls.text || ls.sections[i] > ls.text + LINE_PARSE_MAX_TEXT) abort();
    std::string own = line.substr(0, 2);
    for (const char *prefix : {"d=", "", own.c_str()}) {
        const char *found = get_section_by_prefix(&ls, prefix);
        if (found != nullptr && strncmp(found, prefix, strlen(prefix)) != 0) abort();
    }
    return 0;
}
