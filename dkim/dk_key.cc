#include "dkim/dk_key.h"

#include "util/halyx_log.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

char *dk_selector_from_context(const char *context)
{
    /* a plain substring search: a setting whose name merely ends in dkimsel matches too */
    const char *p = strstr(context, DK_CONTEXT_SELECTOR);
    if (p == nullptr) return asprintf_safe("%s", DK_DEFAULT_SELECTOR);
    p += strlen(DK_CONTEXT_SELECTOR);
    return asprintf_safe("%.*s", (int)strcspn(p, ","), p);
}

char *dk_key_path(const char *domain, const char *selector)
{
    return asprintf_safe(DK_KEY_PATH_FORMAT, domain, selector);
}

int dk_key_read(const char *path, char *key, size_t *length)
{
    /* non-blocking, and never a FIFO, device or socket: those could hang the chain or
     * stream without end.  A directory (the empty selector's path ends in '/') opens
     * and reads as an empty key, which the signer refuses, as it always has. */
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    struct stat st;
    if (fd >= 0 && (fstat(fd, &st) != 0 || !(S_ISREG(st.st_mode) || S_ISDIR(st.st_mode)))) {
        close(fd);
        fd = -1;
    }
    if (fd < 0) return DK_KEY_CANNOT_OPEN;
    /* read() straight into key: no copy is left behind in a stdio buffer */
    size_t n = 0;
    while (n < DK_KEY_BUFFER) {
        ssize_t got = read(fd, key + n, DK_KEY_BUFFER - n);
        if (got <= 0) break; /* end of file, or an error: what was read is the key, as fread */
        n += (size_t)got;
    }
    close(fd);
    /* a file of exactly the buffer's size fails too, though it would fit */
    if (n == DK_KEY_BUFFER) return DK_KEY_TOO_BIG;
    key[n] = '\0';
    *length = n;
    return DK_KEY_OK;
}

char *dk_key_failure(int status, const char *path)
{
    if (status == DK_KEY_TOO_BIG) return asprintf_safe("%s", DK_LOG_KEY_TOO_BIG);
    return asprintf_safe(DK_LOG_NO_KEY, path);
}
