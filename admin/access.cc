#include "admin/access.h"
#include "milter/milter_conf.h"

#include "dkim/dk_key.h"
#include "dkim/whitelist.h"
#include "mailhandler/mail_me.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

/* probe - the errno of doing what the handler does with path (0: it works); runs as the user */
int probe(const Access::Probe &p)
{
    if (p.kind == Access::CONNECT) {
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        if (p.path.size() >= sizeof(a.sun_path)) return ENAMETOOLONG;
        memcpy(a.sun_path, p.path.data(), p.path.size());
        int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        int err = fd < 0 || connect(fd, (sockaddr *)&a, sizeof(a)) != 0 ? errno : 0;
        if (fd >= 0) close(fd);
        return err;
    }
    if (p.kind == Access::CREATE_IN) {
        std::string tmp = p.path + "/.keyseal-admin.XXXXXX";
        int fd = mkstemp(tmp.data());
        if (fd < 0) return errno;
        close(fd);
        unlink(tmp.c_str());
        return 0;
    }
    int fd = open(p.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return p.kind == Access::READ_IF_THERE && errno == ENOENT ? 0 : errno;
    close(fd);
    return 0;
}

/* spool_fix - the command that lets user create spool files, loosening nothing: a
 * directory of a group (the package's) admits the user to the group, not everyone */
std::string spool_fix(const std::string &user)
{
    const std::string spool = MAIL_SPOOL_DIR;
    char mode[8];
    struct stat st;
    if (stat(spool.c_str(), &st) != 0) {
        snprintf(mode, sizeof(mode), "%o", MAIL_SPOOL_MODE);
        return std::string("install -d -m ") + mode + " " + spool;
    }
    struct group *g = st.st_gid != 0 ? getgrgid(st.st_gid) : nullptr;
    if (g == nullptr) {
        snprintf(mode, sizeof(mode), "%o", MAIL_SPOOL_MODE);
        return std::string("chmod ") + mode + " " + spool;
    }
    std::string fix = std::string("adduser ") + user + " " + g->gr_name;
    if ((st.st_mode & 0030) != 0030) {
        snprintf(mode, sizeof(mode), "%o", MAIL_SPOOL_GROUP_MODE);
        fix += std::string(" && chmod ") + mode + " " + spool;
    }
    return fix;
}

} // namespace

Access::Access(const std::string &name)
{
    struct passwd *pw = getpwnam(name.c_str());
    if (pw == nullptr)
        throw Usage("no such user: " + name + " (the user the mail system runs keyseal as)");
    user = pw->pw_name, uid = pw->pw_uid, gid = pw->pw_gid;
    struct group *g = getgrgid(gid);
    group = g != nullptr ? g->gr_name : std::to_string(gid);
}

/* default_user - keyseal-milter's account when it exists, else nobody in particular */
std::string Access::default_user()
{
    return getpwnam(MILTER_USER) != nullptr ? MILTER_USER : "";
}

void Access::become() const
{
    if (initgroups(user.c_str(), gid) != 0 || setgid(gid) != 0 || setuid(uid) != 0) _exit(127);
}

std::vector<int> Access::errors(const std::vector<Probe> &probes) const
{
    int p[2];
    if (pipe(p) != 0) throw Problem(std::string("cannot make a pipe: ") + strerror(errno));
    pid_t pid = fork();
    if (pid < 0) throw Problem(std::string("cannot fork: ") + strerror(errno));
    if (pid == 0) {
        close(p[0]);
        become();
        for (const auto &pr : probes) {
            int err = probe(pr);
            if (write(p[1], &err, sizeof(err)) != sizeof(err)) _exit(1);
        }
        _exit(0);
    }
    close(p[1]);
    std::vector<int> out;
    int err;
    while (out.size() < probes.size() && read(p[0], &err, sizeof(err)) == sizeof(err))
        out.push_back(err);
    close(p[0]);
    int status;
    waitpid(pid, &status, 0);
    if (out.size() != probes.size())
        throw Problem("cannot take the identity of user " + user + " (run keyseal-admin as root)");
    return out;
}

void Access::check_key(const std::string &path, Findings &report) const
{
    int err = errors({{path, READ}})[0];
    if (err == 0) {
        report.ok("user " + user + " can read the key " + path);
        return;
    }
    std::string dir = path.substr(0, path.rfind('/'));
    report.error("user " + user + " cannot read the key " + path + ": " + strerror(err) +
                 "; every message of the domain would fail: chgrp " + group + " " + dir + " " +
                 path + " && chmod 0750 " + dir + " && chmod 0640 " + path);
}

void Access::check_files(Findings &report) const
{
    const std::string whitelist = DK_WHITELIST_PATH, spool = MAIL_SPOOL_DIR;
    std::vector<int> err = errors({{whitelist, READ_IF_THERE}, {spool, CREATE_IN}});
    if (err[0] == 0)
        report.ok("user " + user + " can read the whitelist " + whitelist + " (or it is absent)");
    else
        report.error("user " + user + " cannot read the whitelist " + whitelist + ": " +
                     strerror(err[0]) +
                     "; whitelisted clients' mail would go out unsigned: chmod 0644 " + whitelist);
    if (err[1] == 0)
        report.ok("user " + user + " can create spool files in " + spool);
    else
        report.error("user " + user + " cannot create spool files in " + spool + ": " +
                     strerror(err[1]) + "; every message would fail: " + spool_fix(user));
}

} // namespace keyseal_admin
