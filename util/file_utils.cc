#include "util/file_utils.h"

#include "util/halyx_log.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

enum { PATH_BUFFER = 4096 };

int make_dir_rec(const char *dir, uid_t owner, gid_t group, mode_t mode)
{
    std::string parent = dir;
    while (parent.size() > 1 && parent.back() == '/')
        parent.pop_back();
    size_t slash = parent.rfind('/');
    if (slash != std::string::npos && slash > 0) {
        parent.resize(slash);
        make_dir_rec(parent.c_str(), owner, group, mode & 0777);
    }
    if (mkdir(dir, mode) == 0) {
        if (chown(dir, owner, group) != 0)
            messlog2(0, 0, "Cannot chown %s: %s", dir, strerror(errno));
    } else if (errno != EEXIST) {
        messlog2(1, 0, "Cannot create directory %s: %s", dir, strerror(errno));
    }
    return 0;
}

int make_dir_p(const char *dir, uid_t owner, gid_t group, mode_t mode)
{
    mode_t saved = umask(0);
    make_dir_rec(dir, owner, group, mode);
    umask(saved);
    return 0;
}

/* discard - remove the temporary copy, keeping errno for the caller; returns rc */
static int discard(const char *tmp, int rc)
{
    int err = errno;
    unlink(tmp);
    errno = err;
    return rc;
}

int edit_file_safe(const char *path, edit_file_fn edit, void *data, int must_exist)
{
    struct stat st;
    uid_t owner = 0;
    gid_t group = 0;
    mode_t mode = 0644;
    if (stat(path, &st) == 0) {
        owner = st.st_uid;
        group = st.st_gid;
        mode = st.st_mode & 07777;
    } else if (must_exist) {
        return -1;
    }

    char tmp[PATH_BUFFER];
    int n = snprintf(tmp, sizeof(tmp), "%s.XXXXXX", path);
    if (n < 0 || n >= (int)sizeof(tmp)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    int fd = mkstemp(tmp);
    if (fd < 0) return -1;
    FILE *out = fdopen(fd, "w");
    if (out == nullptr) {
        int err = errno;
        close(fd);
        errno = err;
        return discard(tmp, -1);
    }
    FILE *old = fopen(path, "r");
    if (old == nullptr && must_exist) {
        int err = errno;
        fclose(out);
        errno = err;
        return discard(tmp, -1);
    }

    int rc = edit(old, out, data);
    /* a full disk may only show when the last buffer is flushed */
    if (fclose(out) != 0 && rc == 0) rc = -1;
    if (old != nullptr) fclose(old);
    if (chown(tmp, owner, group) != 0) {
        /* keeping the old owner is best effort, as for an unprivileged editor */
    }
    chmod(tmp, mode);

    if (rc != 0) return discard(tmp, rc);
    return rename(tmp, path) != 0 ? discard(tmp, -1) : 0;
}

int write_all(int fd, const void *data, size_t length)
{
    const char *at = (const char *)data;
    while (length > 0) {
        ssize_t n = write(fd, at, length);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            if (n == 0) errno = ENOSPC;
            return -1;
        }
        at += n, length -= (size_t)n;
    }
    return 0;
}
