#include "test_util.h"

#include "mailhandler/mail_me.h"

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

std::string read_file(const std::string &path)
{
    std::stringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &data)
{
    std::ofstream(path, std::ios::binary) << data;
}

std::string temp_dir()
{
    static struct Dirs : std::vector<std::string> {
        ~Dirs()
        {
            for (auto &d : *this)
                std::filesystem::remove_all(d);
        }
    } dirs;
    char tmpl[] = "/tmp/keyseal-test-XXXXXX";
    return dirs.emplace_back(mkdtemp(tmpl));
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
    static const std::string path = temp_dir() + "/stdin";
    write_file(path, input);
    if (freopen(path.c_str(), "r", stdin) == nullptr) abort();
}

std::string with_stdout(const std::function<void()> &fn, int fd)
{
    std::string path = temp_dir() + "/stdout";
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    int target = fd >= 0 ? fd : open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(target, STDOUT_FILENO);
    close(target);
    fn();
    fflush(stdout);
    clearerr(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    return fd >= 0 ? "" : read_file(path);
}
