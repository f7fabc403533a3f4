// conf_read_file_r on any file content.
// Property: reading never fails for a readable file; every name the table holds is
// found again by conf_get_r (after finalizing, lookups search by halves, so this checks
// that the order and the search agree); no leak after conf_free_r.
#include "conf/hlx_conf.h"
#include "util/halyx_log.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool quiet = (halyx_log_init("none", 6, 16, 0, nullptr), true);
    (void)quiet;
    int fd = memfd_create("conf", 0); // a file without touching the file system
    if (fd < 0 || write(fd, data, size) != (ssize_t)size) abort();
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    conf_table *t = (conf_table *)calloc(1, sizeof(*t));
    if (conf_read_file_r(path, t) != 0) abort();
    for (size_t i = 0; i < t->capacity; i++)
        if (t->entries[i].name != nullptr && conf_get_r(t->entries[i].name, t) == nullptr) abort();
    conf_free_r(t);
    close(fd);
    return 0;
}
