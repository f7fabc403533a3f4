#include "test_util.h"

#include "mailhandler/mail_me.h"

#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

std::string read_file(const std::string &path)
{
    std::ifstream f(path, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &data)
{
    std::ofstream(path, std::ios::binary) << data;
}

std::string temp_dir()
{
    static std::vector<std::string> dirs;
    static struct Cleanup {
        ~Cleanup()
        {
            for (auto &d : dirs)
                std::filesystem::remove_all(d);
        }
    } cleanup;
    char tmpl[] = "/tmp/keyseal-test-XXXXXX";
    dirs.push_back(mkdtemp(tmpl));
    return dirs.back();
}

std::vector<std::string> spool_files()
{
    std::vector<std::string> names;
    for (auto &e : std::filesystem::directory_iterator(MAIL_SPOOL_DIR))
        names.push_back(e.path().filename());
    return names;
}

void redirect_stdin(const std::string &input)
{
    static std::string path = temp_dir() + "/stdin";
    write_file(path, input);
    if (freopen(path.c_str(), "r", stdin) == nullptr) abort();
}

static int saved_stdout = -1;
static std::string capture_path;

void begin_stdout_capture()
{
    fflush(stdout);
    capture_path = temp_dir() + "/stdout";
    int fd = open(capture_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    saved_stdout = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    close(fd);
}

std::string end_stdout_capture()
{
    fflush(stdout);
    clearerr(stdout);
    dup2(saved_stdout, STDOUT_FILENO);
    close(saved_stdout);
    return read_file(capture_path);
}
