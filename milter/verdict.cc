#include "milter/verdict.h"

#include "dkim/dk_engine.h"
#include "milter/milter_log.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <syslog.h>

namespace keyseal_milter
{

namespace
{

/* line - one log line from a format of milter_log.h */
template <typename... Args> LogLine line(int level, const char *format, Args... args)
{
    int n = snprintf(nullptr, 0, format, args...);
    std::string text((size_t)std::max(n, 0), '\0');
    snprintf(text.data(), text.size() + 1, format, args...);
    return {level, text};
}

} // namespace

std::string header_value(const std::string &header)
{
    std::string value = header.substr(std::min(header.size(), strlen(DK_SIGNATURE_HEADER)));
    if (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
}

Plan not_signed(const std::string &id, const std::string &why, bool retry, bool strict)
{
    Plan p;
    if (!retry)
        p.log.push_back(line(LOG_ERR, MILTER_LOG_PERMANENT, id.c_str(), why.c_str()));
    else if (strict) {
        p.disposition = Disposition::TEMPFAIL;
        p.log.push_back(line(LOG_ERR, MILTER_LOG_TEMPFAIL, id.c_str(), why.c_str()));
    } else
        p.log.push_back(line(LOG_ERR, MILTER_LOG_NOT_SIGNED, id.c_str(), why.c_str()));
    return p;
}

Plan decide(const std::string &id, const Result &r, const std::vector<std::string> &held,
            bool strict)
{
    if (r.verdict == Verdict::SKIPPED) return {};
    if (r.verdict != Verdict::SIGNED || r.signatures.empty())
        return not_signed(id, r.reason.empty() ? "the handler gave no signature" : r.reason,
                          r.verdict != Verdict::SIGNED ? r.retry : true, strict);
    Plan p;
    if (!r.reason.empty())
        p.log.push_back(line(LOG_WARNING, MILTER_LOG_PARTIAL, id.c_str(), r.reason.c_str()));
    std::vector<Cut> cuts = r.cuts;
    std::sort(cuts.begin(), cuts.end(),
              [](const Cut &a, const Cut &b) { return a.place > b.place; });
    for (const Cut &c : cuts) {
        bool held_so = c.place >= 1 && c.place <= held.size() && held[c.place - 1] == c.text;
        bool again = !p.deletions.empty() && p.deletions.back() == c.place;
        if (held_so && !again)
            p.deletions.push_back(c.place);
        else
            p.log.push_back(line(LOG_WARNING, MILTER_LOG_CUT_MISMATCH, id.c_str(), (int)c.place));
    }
    for (auto sig = r.signatures.rbegin(); sig != r.signatures.rend(); ++sig)
        p.insertions.push_back(header_value(*sig));
    return p;
}

} // namespace keyseal_milter
