/*
 * files - a file's whole text replaced safely (a temporary copy, fsync, rename), the time
 * stamp in the names of kept copies, and errno in words beside a path.
 *
 * replace_file returns 0, or -1 with errno; nothing here throws or ends the process.
 */
#ifndef KEYSEAL_ADMIN_FILES_H
#define KEYSEAL_ADMIN_FILES_H

#include <string>

namespace keyseal_admin
{

/* errno_text - "PATH: " and errno's text */
std::string errno_text(const std::string &path);
/* replace_file - text as path's whole content, through a temporary copy, fsync and a rename
 * (edit_file_safe): an existing file keeps its owner and mode, a new one is 0644.  0, or
 * -1 with errno */
int replace_file(const std::string &path, const std::string &text);
/* file_stamp - the local time as YYYYMMDDTHHMMSS, for the names of kept copies */
std::string file_stamp();

} // namespace keyseal_admin

#endif
