/*
 * file_utils - directory chains made with owner and mode, and files replaced
 * atomically through a temporary copy beside them.
 *
 * WARNING: make_dir_p() and make_dir_rec() end the process (status 1, through
 * messlog2) when mkdir fails other than with EEXIST; otherwise they return 0.  A
 * failed chown is reported and ignored.
 * edit_file_safe() returns 0 when the file was replaced, the callback's
 * non-zero result when it refused (the file stays as it was), or -1 with errno.
 * write_all() returns 0 when every byte was written, or -1 with errno.
 */
#ifndef FILE_UTILS_H
#define FILE_UTILS_H

#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int (*edit_file_fn)(FILE *old, FILE *out, void *data);

int make_dir_p(const char *dir, uid_t owner, gid_t group, mode_t mode);
int make_dir_rec(const char *dir, uid_t owner, gid_t group, mode_t mode);
/* edit_file_safe - write path anew through edit(); old is NULL when path did not exist */
int edit_file_safe(const char *path, edit_file_fn edit, void *data, int must_exist);
/* write_all - length bytes to fd, through interruptions and short writes; a write that
 * takes nothing fails with ENOSPC */
int write_all(int fd, const void *data, size_t length);

#ifdef __cplusplus
}
#endif

#endif
