#include "admin/line_limit.h"

#include "admin/admin.h"
#include "admin/files.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace keyseal_admin
{

std::string record_line_limit(const std::string &path, const std::string &given)
{
    /* written as keyseal-milter reads it: "0998" is 998, and "01" the 1 it refuses */
    size_t digits = given.find_first_not_of('0');
    std::string value = digits == std::string::npos ? "0" : given.substr(digits);
    if (given.empty() || value.size() > 9 ||
        value.find_first_not_of("0123456789") != std::string::npos || value == "1")
        throw Problem("Postfix's smtp_line_length_limit = " + given +
                      " is no limit keyseal-milter can fold to (0, or 2 and more)");
    std::string text;
    {
        std::ifstream in(path);
        if (!in && errno != ENOENT) throw Problem("cannot read " + errno_text(path));
        std::ostringstream all;
        all << in.rdbuf();
        text = in ? all.str() : "";
    }
    const std::string name = "line_length_limit", wanted = name + " " + value;
    std::string out, old;
    int seen = 0, same = 0;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first, rest;
        words >> first >> rest;
        if (first == name) {
            /* keyseal-milter takes the last of several: one is left, where the first was */
            bool first_seen = old.empty();
            if (first_seen) old = rest.empty() ? "empty" : rest;
            same += rest == value ? 1 : 0, seen++;
            if (!first_seen) continue;
            line = wanted;
        }
        out += line + "\n";
    }
    if (seen == 1 && same == 1) return "unchanged: " + wanted + " in " + path;
    if (old.empty())
        out += "\n# Postfix's smtp_line_length_limit, recorded by keyseal-admin postfix setup: "
               "keyseal-milter folds longer lines to it\n" +
               wanted + "\n";
    /* the package makes the directory; keyseal-admin may be set up before keyseal-milter */
    std::string dir = path.substr(0, path.rfind('/'));
    if (!dir.empty() && mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST)
        throw Problem("cannot make " + errno_text(dir));
    if (replace_file(path, out) != 0) throw Problem("cannot write " + errno_text(path));
    return "changed: " + wanted + " in " + path +
           " (Postfix's smtp_line_length_limit; was: " + (old.empty() ? "not set" : old) +
           "): keyseal-milter reads it when reloaded (systemctl reload keyseal-milter)";
}

} // namespace keyseal_admin
