/*
 * selector_map - keyseal-milter's per-domain selector map, "DOMAIN SELECTOR [SELECTOR2]"
 * lines with '#' comments: read for keyseal-milter's settings, one domain's line rewritten
 * for keyseal-admin with every other line kept as it was, and a running keyseal-milter asked
 * to read it again.  The one reader and writer of the map, shared by both programs.
 *
 * read_selector_map throws ConfigError ("FILE:LINE: why") for a malformed line, so that
 * nothing starts (or is reloaded) on a half-read map; set_selectors returns 0, or -1 with
 * errno, the file untouched; reload_milter returns "" when asked, else why not.  Results
 * are values; nothing here ends the process.
 */
#ifndef KEYSEAL_SELECTOR_MAP_H
#define KEYSEAL_SELECTOR_MAP_H

#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace keyseal_milter
{

struct ConfigError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* domain (canonical: lower case, no trailing dot) -> its one or two selectors */
using SelectorMap = std::unordered_map<std::string, std::vector<std::string>>;

/* selector_list - names as one or two selectors; throws ConfigError with at ("FILE:LINE: ")
 * before the reason */
std::vector<std::string> selector_list(const std::vector<std::string> &names,
                                       const std::string &at);
/* read_selector_map - the map at path; a missing file is an empty map unless must_exist */
SelectorMap read_selector_map(const std::string &path, bool must_exist);
/* set_selectors - path rewritten (atomically, owner and mode kept) with every line of domain
 * (compared as read_selector_map compares it) as "DOMAIN SELECTOR..." and the others as they
 * were; the line added at the end when the domain had none, the file made when missing */
int set_selectors(const std::string &path, const std::string &domain,
                  const std::vector<std::string> &selectors);
/* reload_milter - keyseal-milter told to read its settings and map again: through systemctl
 * where systemd runs, else by SIGHUP to the process in pid_file ("" for none) */
std::string reload_milter(const std::string &pid_file);

} // namespace keyseal_milter

#endif
