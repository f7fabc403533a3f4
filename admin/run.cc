#include "admin/run.h"

#include "admin/access.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

extern char **environ;

namespace keyseal_admin
{

Run run_program(const std::string &path, const std::vector<std::string> &args,
                const std::vector<std::string> &env, const std::string &input, const Access *user)
{
    int in[2], out[2], err[2];
    if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0)
        throw Problem(std::string("cannot make pipes: ") + strerror(errno));
    std::vector<char *> argv{(char *)path.c_str()}, envp;
    for (const auto &a : args)
        argv.push_back((char *)a.c_str());
    argv.push_back(nullptr);
    for (const auto &e : env)
        envp.push_back((char *)e.c_str());
    envp.push_back(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        if (dup2(in[0], 0) < 0 || dup2(out[1], 1) < 0 || dup2(err[1], 2) < 0) _exit(127);
        if (user != nullptr) user->become();
        execve(path.c_str(), argv.data(), env.empty() ? environ : envp.data());
        _exit(127);
    }
    int rc = pid < 0 ? errno : 0;
    close(in[0]);
    close(out[1]);
    close(err[1]);
    if (rc != 0) {
        close(in[1]), close(out[0]), close(err[0]);
        throw Problem("cannot run " + path + ": " + strerror(rc));
    }
    /* the input is small: it fits in the pipe, so writing first cannot deadlock */
    if (write(in[1], input.data(), input.size()) < 0 && errno != EPIPE) {
    }
    close(in[1]);
    Run run;
    pollfd fds[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    std::string *sinks[2] = {&run.out, &run.err};
    for (int open = 2; open > 0;) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) break;
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buf[8192];
            ssize_t n = read(fds[i].fd, buf, sizeof(buf));
            if (n > 0) {
                sinks[i]->append(buf, (size_t)n);
                continue;
            }
            close(fds[i].fd);
            fds[i].fd = -1;
            open--;
        }
    }
    waitpid(pid, &run.status, 0);
    return run;
}

} // namespace keyseal_admin
