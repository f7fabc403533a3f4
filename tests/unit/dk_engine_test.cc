// The signing engine's report of the removal walk: which DKIM-Signature headers it
// cuts and keeps, numbered as a milter addresses them (any letter case, 1 = first).
// The messages' bytes after the walk are the end-to-end suite's; this is what explain
// and keyseal-milter are told.  Runs inside the test sandbox (private spool, no keys).
#include "dkim/dk_engine.h"
#include "test_util.h"
#include "util/halyx_log.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{

const char OWN[] = "DKIM-Signature: v=1; a=rsa-sha256;\n\td=example.com; s=old;\n b=AAAA\n";
const char OWN2[] = "DKIM-Signature: v=1; d=example.com; s=two; b=BBBB\n";
const char FOREIGN[] = "DKIM-Signature: v=1; d=other.org; s=x; b=CCCC\n";
const char LOWER[] = "dkim-signature: v=1; d=example.com; s=low; b=DDDD\n";
const char HEAD[] = "From: ann@example.com\nSubject: hi\n";

void record(void *data, int event, int number, const char *)
{
    auto *seen = static_cast<std::string *>(data);
    if (event == DK_EVENT_CUT || event == DK_EVENT_KEPT)
        *seen += (event == DK_EVENT_CUT ? "cut " : "kept ") + std::to_string(number) + " ";
}

TEST(DkEngine, ReportsWhatTheRemovalWalkCutsAndKeeps)
{
    halyx_log_init("nowhere", LOG_INFO, LOG_MAIL, 0, nullptr);
    setenv("PPP_INSIDE_SENDMAIL", "1", 1);
    const struct {
        const char *name;
        std::string headers, events;
    } cases[] = {
        {"own, folded, then foreign", std::string(OWN) + FOREIGN + HEAD, "cut 1 kept 2 "},
        {"foreign before own: the foreign is cut", std::string(FOREIGN) + OWN + HEAD,
         "cut 1 kept 2 "},
        {"adjacent own pair: the second stays", std::string(OWN) + OWN2 + HEAD, "cut 1 kept 2 "},
        {"lower-case name is never cut but counts", std::string(LOWER) + HEAD + OWN2,
         "cut 2 kept 1 "},
        {"separated own pair: both go", std::string(OWN) + HEAD + OWN2, "cut 1 cut 2 "},
        {"no signature", HEAD, ""},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string message = c.headers + "\nbody\n", seen;
        FILE *in = fmemopen(message.data(), message.size(), "r");
        dk_engine_job job = {"example.com", "", in,      nullptr, record,  &seen,
                             nullptr,       0,  nullptr, nullptr, nullptr, nullptr};
        EXPECT_EQ(dk_engine_run(&job), DK_ENGINE_FAILED); /* no key in the sandbox */
        fclose(in);
        EXPECT_EQ(seen, c.events);
        EXPECT_TRUE(spool_files().empty());
    }
    unsetenv("PPP_INSIDE_SENDMAIL");
}

} // namespace
