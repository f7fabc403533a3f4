#include "dkim/dk_key.h"

#include "util/halyx_log.h"

#include <arpa/inet.h>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <strings.h>
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

const char *dk_selector_problem(const char *name)
{
    if (*name == '\0') return "it is empty";
    if (strchr(name, '/') != nullptr) return "it holds '/'";
    if (name[0] == '.') return "it begins with '.'";
    /* CONTEXT is comma-separated: a selector with ',' can never be chosen */
    if (strchr(name, ',') != nullptr) return "it holds ','";
    for (const unsigned char *p = (const unsigned char *)name; *p != '\0'; p++)
        if (*p <= ' ' || *p == 0x7f) return "it holds white space or a control byte";
    return nullptr;
}

/* host_name - labels of letters, digits and hyphens, joined by single dots */
static bool host_name(const char *s, size_t len)
{
    if (len == 0 || len > 253) return false;
    size_t label = 0;
    for (size_t i = 0; i < len; i++) {
        unsigned char c = (unsigned char)s[i];
        if (c == '.') {
            if (label == 0) return false;
            label = 0;
        } else if (isalnum(c) || c == '-') {
            if (++label > 63) return false;
        } else {
            return false;
        }
    }
    return label > 0;
}

/* address_literal - "[" an IPv4 address, or "IPv6:" and an IPv6 address, "]" */
static bool address_literal(const char *s, size_t len)
{
    char inside[64];
    if (len < 3 || s[0] != '[' || s[len - 1] != ']' || len - 2 >= sizeof(inside)) return false;
    memcpy(inside, s + 1, len - 2);
    inside[len - 2] = '\0';
    unsigned char addr[sizeof(struct in6_addr)];
    if (strncasecmp(inside, "IPv6:", 5) == 0) return inet_pton(AF_INET6, inside + 5, addr) == 1;
    return inet_pton(AF_INET, inside, addr) == 1;
}

char *dk_domain_canonical(const char *domain)
{
    size_t len = strlen(domain);
    if (len > 1 && domain[len - 1] == '.' && domain[0] != '[') len--;
    if (!host_name(domain, len) && !address_literal(domain, len)) return nullptr;
    char *out = asprintf_safe("%.*s", (int)len, domain);
    for (char *p = out; *p != '\0'; p++)
        *p = (char)tolower((unsigned char)*p);
    return out;
}
