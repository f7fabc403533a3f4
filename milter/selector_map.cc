#include "milter/selector_map.h"

#include "dkim/dk_key.h"
#include "util/file_utils.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace keyseal_milter
{

namespace
{

using Canonical = std::unique_ptr<char, decltype(&free)>;

/* words - a map line's words, its comment left out */
std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line.substr(0, line.find('#')));
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

struct Edit {
    std::string domain, line;
};

/* rewrite - edit_file_safe's editor: old's lines, the domain's replaced by the new line */
int rewrite(FILE *old, FILE *out, void *data)
{
    auto *e = static_cast<Edit *>(data);
    /* a map that is there but cannot be read must not be replaced by one line */
    if (old == nullptr && errno != ENOENT) return -1;
    std::string text;
    bool found = false;
    char *buf = nullptr;
    size_t size = 0;
    for (ssize_t n; old != nullptr && (n = getline(&buf, &size, old)) >= 0;) {
        std::string line(buf, (size_t)n);
        if (!line.empty() && line.back() == '\n') line.pop_back();
        auto w = words(line);
        Canonical c(w.empty() ? nullptr : dk_domain_canonical(w[0].c_str()), free);
        if (c && e->domain == c.get()) {
            line = e->line;
            found = true;
        }
        text += line + "\n";
    }
    free(buf);
    if (old != nullptr && ferror(old)) return -1;
    if (!found) text += e->line + "\n";
    if (fwrite(text.data(), 1, text.size(), out) != text.size() || fflush(out) != 0 ||
        fsync(fileno(out)) != 0)
        return -1;
    return 0;
}

/* systemctl_reload - "systemctl reload keyseal-milter" succeeded; err: the first line it
 * wrote on its standard error (none when it could not be run, as for an exit status 127) */
bool systemctl_reload(std::string &err)
{
    int pipe_fds[2];
    if (pipe2(pipe_fds, O_CLOEXEC) != 0) return false;
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&fa, pipe_fds[1], 2);
    const char *argv[] = {"/bin/systemctl", "reload", "keyseal-milter", nullptr};
    pid_t pid;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, (char *const *)argv, environ);
    posix_spawn_file_actions_destroy(&fa);
    close(pipe_fds[1]);
    if (rc != 0) {
        close(pipe_fds[0]);
        return false;
    }
    char buf[4096];
    for (ssize_t n; (n = read(pipe_fds[0], buf, sizeof(buf))) != 0;) {
        if (n > 0) err.append(buf, (size_t)n);
        if (n < 0 && errno != EINTR) break;
    }
    close(pipe_fds[0]);
    int status;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    err = err.substr(0, err.find('\n'));
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace

std::vector<std::string> selector_list(const std::vector<std::string> &names, const std::string &at)
{
    if (names.empty() || names.size() > 2) throw ConfigError(at + "expected one or two selectors");
    for (const auto &s : names)
        if (const char *why = dk_selector_problem(s.c_str()))
            throw ConfigError(at + "selector '" + s + "' is no name: " + why);
    if (names.size() == 2 && names[0] == names[1])
        throw ConfigError(at + "selector '" + names[0] + "' named twice");
    return names;
}

SelectorMap read_selector_map(const std::string &path, bool must_exist)
{
    SelectorMap map;
    std::ifstream in(path);
    if (!in) {
        if (!must_exist && errno == ENOENT) return map;
        throw ConfigError(path + ": " + strerror(errno));
    }
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        std::vector<std::string> w = words(line);
        if (w.empty()) continue;
        std::string at = path + ":" + std::to_string(n) + ": ";
        if (w.size() < 2 || w.size() > 3)
            throw ConfigError(at + "expected DOMAIN SELECTOR [SELECTOR2]");
        Canonical domain(dk_domain_canonical(w[0].c_str()), free);
        if (!domain) throw ConfigError(at + "'" + w[0] + "' is not a domain name");
        map[domain.get()] = selector_list({w.begin() + 1, w.end()}, at);
    }
    return map;
}

int set_selectors(const std::string &path, const std::string &domain,
                  const std::vector<std::string> &selectors)
{
    Edit e{domain, domain};
    for (const auto &s : selectors)
        e.line += " " + s;
    return edit_file_safe(path.c_str(), rewrite, &e, 0);
}

std::string reload_milter(const std::string &pid_file)
{
    if (access("/run/systemd/system", F_OK) == 0) {
        std::string err;
        if (systemctl_reload(err)) return "";
        return "systemctl reload keyseal-milter failed" + (err.empty() ? "" : ": " + err);
    }
    if (pid_file.empty()) return "its pid_file is none, so no process to signal";
    std::ifstream in(pid_file);
    long pid = 0;
    if (!(in >> pid) || pid <= 1) return "no process id in " + pid_file + " (is it running?)";
    if (kill((pid_t)pid, SIGHUP) != 0)
        return "cannot signal process " + std::to_string(pid) + " of " + pid_file + ": " +
               strerror(errno);
    return "";
}

} // namespace keyseal_milter
