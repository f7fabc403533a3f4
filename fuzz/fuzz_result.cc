// decode() of a result record on any bytes.
// Property: decoding never reads past the input nor allocates beyond it (a count larger
// than the bytes left is refused); what decodes encodes back to the very same bytes, so
// no two encodings mean one record and nothing is lost on the way.
#include "milter/records.h"

#include <cstdint>
#include <cstdlib>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view in(reinterpret_cast<const char *>(data), size);
    keyseal_milter::Result record;
    if (keyseal_milter::decode(in, record) && keyseal_milter::encode(record) != in) abort();
    return 0;
}
