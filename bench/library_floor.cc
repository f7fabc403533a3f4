/*
 * library_floor KEY.pem - the least a libopendkim-based signer must do: one
 * signing handle with keyseal's parameters (relaxed/relaxed, default algorithm,
 * the four header names, whole body), standard input fed in 64 KiB chunks and
 * copied to standard output, the header printed at the end; no spooling.
 * The library repairs bare LF itself here, which keyseal does while feeding.
 */
#define _Bool bool
#include <dkim.h>

#include <cstdio>
#include <unistd.h>

int main(int argc, char **argv)
{
    static char key[16384];
    FILE *kf = argc > 1 ? fopen(argv[1], "r") : nullptr;
    if (kf == nullptr) return 2;
    key[fread(key, 1, sizeof(key) - 1, kf)] = '\0';
    fclose(kf);

    DKIM_LIB *lib = dkim_init(nullptr, nullptr);
    unsigned int flags =
        DKIM_LIBFLAGS_ACCEPTDK | DKIM_LIBFLAGS_BADSIGHANDLES | DKIM_LIBFLAGS_FIXCRLF;
    dkim_options(lib, DKIM_OP_SETOPT, DKIM_OPTS_FLAGS, &flags, sizeof(flags));
    DKIM_STAT st;
    DKIM *dkim = dkim_sign(lib, (const u_char *)"floor", nullptr, (dkim_sigkey_t)key,
                           (const u_char *)"default", (const u_char *)"example.com",
                           DKIM_CANON_RELAXED, DKIM_CANON_RELAXED, DKIM_SIGN_DEFAULT, -1, &st);
    if (dkim == nullptr) return 2;
    const char *names[] = {"Received", "From", "To", "Subject", nullptr};
    dkim_signhdrs(dkim, names);
    static u_char buf[65536];
    for (ssize_t n; (n = read(0, buf, sizeof(buf))) > 0;) {
        if (dkim_chunk(dkim, buf, (size_t)n) != DKIM_STAT_OK) return 1;
        if (write(1, buf, (size_t)n) != n) return 1;
    }
    dkim_chunk(dkim, nullptr, 0);
    _Bool testkey;
    unsigned char *hdr = nullptr;
    size_t len = 0;
    int rc = dkim_eom(dkim, &testkey) == DKIM_STAT_OK &&
                     dkim_getsighdr_d(dkim, 16, &hdr, &len) == DKIM_STAT_OK
                 ? 0
                 : 1;
    if (rc == 0) printf("DKIM-Signature: %s\n", hdr);
    dkim_free(dkim);
    dkim_close(lib);
    return rc;
}
