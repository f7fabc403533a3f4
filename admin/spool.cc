#include "admin/spool.h"

#include "admin/files.h"

#include "mailhandler/mail_me.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

/* spool_name - the stem and the characters mkstemp chose */
bool spool_name(const char *name)
{
    const size_t stem = sizeof(MAIL_SPOOL_STEM) - 1;
    return strncmp(name, MAIL_SPOOL_STEM, stem) == 0 && strlen(name) == stem + MAIL_SPOOL_RANDOM;
}

} // namespace

int cmd_spool(bool clean, long older_than)
{
    DIR *d = opendir(MAIL_SPOOL_DIR);
    if (d == nullptr)
        throw Problem("cannot list the spool directory " + errno_text(MAIL_SPOOL_DIR) +
                      ": the handler needs it; install the package or run make install");
    time_t now = time(nullptr);
    int files = 0;
    for (dirent *e; (e = readdir(d)) != nullptr;) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        files++;
        std::string path = std::string(MAIL_SPOOL_DIR) + "/" + e->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue; /* gone meanwhile: its handler finished */
        if (!S_ISREG(st.st_mode) || !spool_name(e->d_name)) {
            printf("%s: not a spool file, left alone\n", e->d_name);
            continue;
        }
        long age = (long)(now - st.st_mtime);
        bool old = age > older_than;
        printf("%s  %8lld bytes  %6ld s old%s\n", e->d_name, (long long)st.st_size, age,
               !old    ? ""
               : clean ? "  removed"
                       : "  (a killed handler's leftover)");
        if (clean && old && unlink(path.c_str()) != 0 && errno != ENOENT) {
            closedir(d);
            throw Problem("cannot remove " + errno_text(path));
        }
    }
    closedir(d);
    if (files == 0) printf("%s is empty\n", MAIL_SPOOL_DIR);
    return EXIT_OK;
}

} // namespace keyseal_admin
