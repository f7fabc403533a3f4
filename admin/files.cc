/*
 * files - a file's whole text replaced safely, the stamp of kept copies, errno in words.
 */
#include "admin/files.h"

#include "util/file_utils.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace keyseal_admin
{

std::string errno_text(const std::string &path)
{
    return path + ": " + strerror(errno);
}

/* write_text - edit_file_safe's editor: the text, on the disk before the rename */
static int write_text(FILE *, FILE *out, void *data)
{
    const std::string &text = *static_cast<const std::string *>(data);
    if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0 ||
        fsync(fileno(out)) != 0)
        return -1;
    return 0;
}

int replace_file(const std::string &path, const std::string &text)
{
    return edit_file_safe(path.c_str(), write_text, const_cast<std::string *>(&text), 0);
}

std::string file_stamp()
{
    char stamp[32];
    time_t now = time(nullptr);
    strftime(stamp, sizeof(stamp), "%Y%m%dT%H%M%S", localtime(&now));
    return stamp;
}

} // namespace keyseal_admin
