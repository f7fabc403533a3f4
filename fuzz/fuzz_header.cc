// The header list: mail_header_read, then mail_header_write.
// Property: for an input with an empty line ("\n" or "\r\n") before which every line is
// shorter than the read buffer and holds no NUL (a NUL ends a line's text by design),
// writing the list gives back the header block and the empty line byte for byte, and
// mail_header_skip stops exactly behind that empty line.  Any input: no crash, no leak.
#include "mailhandler/mail_me.h"
#include "util/halyx_log.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

/* header_block - length of the header block and its empty line, or 0 when the
 * round trip is not expected to be exact */
static size_t header_block(const std::string &in)
{
    for (size_t start = 0; start < in.size();) {
        size_t nl = in.find('\n', start);
        if (nl == std::string::npos) return 0;
        std::string line = in.substr(start, nl + 1 - start);
        if (line == "\n" || line == "\r\n") return nl + 1;
        if (line.size() >= ME_HEADER_LINE_BUFFER || line.find('\0') != std::string::npos) return 0;
        start = nl + 1;
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (halyx_log_init("none", 6, 16, 0, nullptr), true);
    (void)quiet;
    std::string in(reinterpret_cast<const char *>(data), size);
    FILE *f = fmemopen(in.data(), in.size(), "r");
    if (f == nullptr) abort();
    mail_me me{};
    me_header_init(&me.headers);
    if (mail_header_read(f, &me) != 0) abort();

    char *out = nullptr;
    size_t out_size = 0;
    FILE *o = open_memstream(&out, &out_size);
    if (o == nullptr || mail_header_write(o, &me) != 0) abort();
    fclose(o);
    size_t expect = header_block(in);
    if (expect != 0 && std::string(out, out_size) != in.substr(0, expect)) abort();

    rewind(f);
    mail_header_skip(f);
    if (expect != 0 && (size_t)ftell(f) != expect) abort();
    fclose(f);
    free(out);
    me_header_free(&me.headers);
    return 0;
}
