#include "admin/postfix_setup.h"

#include "admin/files.h"
#include "admin/line_limit.h"
#include "admin/postfix_conf.h"
#include "admin/run.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace keyseal_admin
{

namespace
{

/* what setup changed and what was there before, in Postfix's configuration directory */
const char SETUP_RECORD[] = "keyseal-setup";
const char COPY_STEM[] = ".keyseal-"; /* main.cf.keyseal-STAMP */
const size_t COPIES_KEPT = 3;         /* pairs of copies setup keeps */

/* milter_list - a milter list with ours in it (or taken out), the site's own milters kept
 * in their order and a copy seen from outside the chroot dropped; the old value itself
 * when nothing changes, so that it is not rewritten */
std::string milter_list(const std::string &old, const Socket &sock, bool ours)
{
    std::string value;
    bool changed = false, present = false;
    for (const auto &m : postfix_list(old)) {
        bool mine = m == sock.postfix || m == sock.outside;
        if (mine && (!ours || m != sock.postfix || present)) {
            changed = true;
            continue;
        }
        present |= mine;
        value += (value.empty() ? "" : ", ") + m;
    }
    if (ours && !present) {
        value += (value.empty() ? "" : ", ") + sock.postfix;
        changed = true;
    }
    return changed ? value : old;
}

void reload_if_running()
{
    Run status = run_program("/usr/sbin/postfix", {"status"}, {}, "");
    if (!WIFEXITED(status.status) || WEXITSTATUS(status.status) != 0) {
        printf("Postfix is not running: the settings take effect when it starts\n");
        return;
    }
    Run reload = run_program("/usr/sbin/postfix", {"reload"}, {}, "");
    printf("%s\n", WIFEXITED(reload.status) && WEXITSTATUS(reload.status) == 0
                       ? "reloaded Postfix"
                       : "Postfix did not reload: run postfix reload");
}

/* Settings - main.cf's and master.cf's settings as they were before a change, and the
 * changes, written in one go (postconf reads main.cf again only a moment after it was
 * written).  A SERVICE/TYPE/NAME is a -o of master.cf. */
class Settings
{
  public:
    Settings()
    {
        for (const char *flag : {"-n", "-P"}) {
            std::istringstream in(postconf({flag}));
            for (std::string line; std::getline(in, line);) {
                size_t eq = line.find(" =");
                if (eq != std::string::npos)
                    explicit_[line.substr(0, eq)] = trimmed(line.substr(eq + 2));
            }
        }
    }
    bool is_explicit(const std::string &name) const { return explicit_.count(name) != 0; }
    /* value - the setting in effect: main.cf's or the -o's, else Postfix's default */
    std::string value(const std::string &name) const
    {
        auto it = explicit_.find(name);
        if (it != explicit_.end()) return it->second;
        return master(name) ? "" : postconf_value(name);
    }
    void set(const std::string &name, const std::string &value)
    {
        (master(name) ? set_master_ : set_main_).push_back(name + "=" + value);
    }
    void drop(const std::string &name)
    {
        (master(name) ? drop_master_ : drop_main_).push_back(name);
    }
    void write() const
    {
        for (const auto &[flag, args] : {std::pair{"-e", &set_main_},
                                         {"-X", &drop_main_},
                                         {"-P", &set_master_},
                                         {"-PX", &drop_master_}}) {
            if (args->empty()) continue;
            std::vector<std::string> all{flag};
            all.insert(all.end(), args->begin(), args->end());
            postconf(all);
        }
    }

  private:
    static bool master(const std::string &name) { return name.find('/') != std::string::npos; }
    std::map<std::string, std::string> explicit_;
    std::vector<std::string> set_main_, drop_main_, set_master_, drop_master_;
};

/* Record - for each setting setup changed: the value it wrote, and whether main.cf or
 * master.cf had it before, with which value.  remove undoes a change only while the
 * setting still has setup's value; a setting setup found as it wanted it is the
 * administrator's and stays. */
struct Change {
    std::string wrote;
    bool absent = true; /* not set in main.cf or master.cf before setup */
    std::string before;
};
using Record = std::map<std::string, Change>;

std::string record_path()
{
    return postconf_value("config_directory") + "/" + SETUP_RECORD;
}

/* read_record - NAME, the value written, "absent" or "was" and the value before, split by
 * tabs; lines of another form are ignored */
Record read_record(const std::string &path)
{
    Record r;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::vector<std::string> f;
        size_t from = 0;
        for (size_t tab; f.size() < 3 && (tab = line.find('\t', from)) != std::string::npos;
             from = tab + 1)
            f.push_back(line.substr(from, tab - from));
        f.push_back(line.substr(from));
        if (f.size() == 3 && f[2] == "absent")
            r[f[0]] = {f[1], true, ""};
        else if (f.size() == 4 && f[2] == "was")
            r[f[0]] = {f[1], false, f[3]};
    }
    return r;
}

void write_record(const std::string &path, const Record &r)
{
    std::ostringstream out;
    out << "# keyseal-admin postfix setup: each setting it changed, the value it wrote and "
           "what was there before;\n# keyseal-admin postfix remove undoes what still has "
           "setup's value\n";
    for (const auto &[name, c] : r)
        out << name << '\t' << c.wrote << '\t' << (c.absent ? "absent" : "was\t" + c.before)
            << '\n';
    if (replace_file(path, out.str()) != 0)
        throw Problem("cannot write " + path + ": " + strerror(errno) +
                      "; postfix remove will leave setup's settings in place");
}

/* copy_configuration - main.cf and master.cf copied to NAME.keyseal-STAMP (a counter added
 * within one second); the pairs beyond the newest COPIES_KEPT removed.  The copies made. */
std::vector<std::string> copy_configuration(const std::string &dir)
{
    const std::string stamp = file_stamp();
    std::string suffix = stamp;
    for (int n = 2; std::filesystem::exists(dir + "/main.cf" + COPY_STEM + suffix) && n < 10; n++)
        suffix = stamp + "." + std::to_string(n);
    std::vector<std::string> kept;
    for (const char *file : {"main.cf", "master.cf"}) {
        std::string from = dir + "/" + file, to = from + COPY_STEM + suffix;
        std::error_code ec;
        std::filesystem::copy_file(from, to, ec);
        if (ec)
            throw Problem("cannot keep a copy of " + from + " as " + to + ": " + ec.message() +
                          "; nothing was changed");
        kept.push_back(to);
    }
    /* a stamp sorts in time order, and a counter after the stamp it extends */
    std::vector<std::string> stamps;
    std::string stem = std::string("main.cf") + COPY_STEM;
    for (const auto &e : std::filesystem::directory_iterator(dir)) {
        std::string name = e.path().filename();
        if (name.rfind(stem, 0) == 0 && name.size() > stem.size() &&
            isdigit((unsigned char)name[stem.size()]))
            stamps.push_back(name.substr(stem.size()));
    }
    std::sort(stamps.rbegin(), stamps.rend());
    for (size_t i = COPIES_KEPT; i < stamps.size(); i++)
        for (const char *file : {"main.cf", "master.cf"}) {
            std::string old = dir + "/" + file + COPY_STEM + stamps[i];
            if (unlink(old.c_str()) == 0) printf("removed old copy: %s\n", old.c_str());
        }
    return kept;
}

} // namespace

int cmd_postfix_setup()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    std::string dir = postconf_value("config_directory");
    Settings settings;
    Record record = read_record(record_path());
    std::vector<std::string> lines;
    /* a record outlives its setup when main.cf was replaced or the milter taken out by
     * hand: it then describes a configuration that is gone */
    bool named = false;
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"})
        for (const auto &m : postfix_list(settings.value(name)))
            named |= m == sock.postfix;
    if (!named) record.clear();

    /* change - name set to value; a change remembered with what was there before, unless
     * an earlier setup's record already holds that */
    auto change = [&](const std::string &name, const std::string &value, const std::string &what,
                      const std::string &why) {
        std::string old = settings.value(name);
        if (old == value) {
            lines.push_back("unchanged: " + what + value);
            return;
        }
        /* what was there before: an earlier setup's record while the setting still has
         * the value that setup wrote, else what is there now */
        auto it = record.find(name);
        if (it == record.end() || it->second.wrote != old)
            record[name] = {value, !settings.is_explicit(name), old};
        record[name].wrote = value;
        settings.set(name, value);
        lines.push_back("changed: " + what + value +
                        (why.empty() ? " (was: " + (old.empty() ? "empty" : old) + ")" : why));
    };
    for (const std::string name : {"smtpd_milters", "non_smtpd_milters"})
        change(name, milter_list(settings.value(name), sock, true), name + " = ", "");
    change("milter_default_action", c.strict ? "tempfail" : "accept",
           "milter_default_action = ", "");
    change("disable_mime_output_conversion", "yes", "disable_mime_output_conversion = ", "");
    change(CLEANUP_MARK, MILTER_LOCAL_MARK, "master.cf cleanup -o milter_macro_daemon_name=",
           " (marks mail submitted with sendmail)");
    lines.push_back(record_line_limit(MILTER_CONF_PATH, postconf_value("smtp_line_length_limit")));

    std::vector<std::string> kept = copy_configuration(dir);
    write_record(record_path(), record); /* first: remove must know what setup wrote */
    settings.write();
    for (const auto &line : lines)
        printf("%s\n", line.c_str());
    printf("kept copies: %s %s\n", kept[0].c_str(), kept[1].c_str());
    reload_if_running();
    printf("next: keyseal-admin postfix check\n");
    return EXIT_OK;
}

int cmd_postfix_remove()
{
    keyseal_milter::Config c = milter_config();
    Socket sock = socket_for(c, same_chroot());
    std::string path = record_path();
    Record record = read_record(path);
    Settings settings;
    std::vector<std::string> lines;

    /* put - name back to value, or out of main.cf/master.cf when absent */
    auto put = [&](const std::string &name, bool absent, const std::string &value) {
        if (absent) {
            if (!settings.is_explicit(name)) return;
            settings.drop(name);
            lines.push_back("removed: " + name);
        } else if (!settings.is_explicit(name) || settings.value(name) != value) {
            settings.set(name, value);
            lines.push_back("restored: " + name + " = " + value);
        }
    };
    /* the milter lists: ours out, the site's own milters kept; a list left empty goes
     * unless main.cf had it before setup */
    for (const char *name : {"smtpd_milters", "non_smtpd_milters"}) {
        std::string old = settings.value(name), value = milter_list(old, sock, false);
        auto it = record.find(name);
        if (it == record.end() && postfix_list(value) == postfix_list(old))
            continue; /* setup's hands off */
        bool had = it != record.end() && !it->second.absent;
        if (had && postfix_list(value) == postfix_list(it->second.before))
            put(name, false, it->second.before);
        else if (postfix_list(value).empty())
            put(name, !had, "");
        else if (value != old)
            put(name, false, value);
    }
    for (const std::string name :
         {"milter_default_action", "disable_mime_output_conversion", CLEANUP_MARK}) {
        auto it = record.find(name);
        std::string now = settings.value(name);
        if (it == record.end()) {
            /* the local mark is keyseal's whoever wrote it */
            if (name == CLEANUP_MARK && now == MILTER_LOCAL_MARK) put(name, true, "");
        } else if (now != it->second.wrote) {
            lines.push_back("kept: " + name + " = " + now +
                            " (changed since keyseal-admin postfix setup)");
        } else {
            put(name, it->second.absent, it->second.before);
        }
    }
    settings.write();
    if (unlink(path.c_str()) != 0 && errno != ENOENT)
        throw Problem("cannot remove " + errno_text(path));
    for (const auto &line : lines)
        printf("%s\n", line.c_str());
    if (lines.empty())
        printf("Postfix has no setting of keyseal-admin postfix setup: nothing to change\n");
    reload_if_running();
    return EXIT_OK;
}

} // namespace keyseal_admin
