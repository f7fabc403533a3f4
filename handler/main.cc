/*
 * keyseal - the DKIM signing handler of the mail handler chain.
 *
 * keyseal CONTEXT FROM TO...   (message on standard input)
 * Signs outbound mail of local users with the sender domain's key and writes
 * the message back with the new DKIM-Signature header first.  Verdict: "PASS"
 * and exit 0, "SKIP" and exit 5 (standard input not read), exit 255 on error.
 * The flow itself is the signing engine's (dkim/dk_engine.h); this is its process
 * shell: start-up, the standard streams and the verdict word.
 */
#include "dkim/dk_engine.h"
#include "mailhandler/mh_handler.h"
#include "util/halyx_log.h"

#include <syslog.h>
#include <cstdio>

int main(int argc, char **argv)
{
    if (mh_std_fds_open() != 0) return DK_ENGINE_FAILED; /* nothing can be logged safely */
    mh_handler_context ctx;
    if (mh_handler_prepare(&ctx, argc, argv) != 0) {
        halyx_log(LOG_ERR, DK_LOG_INIT_FAILED);
        return DK_ENGINE_FAILED;
    }
    dk_engine_job job = {ctx.from_domain, ctx.context, stdin, stdout,  nullptr,
                         nullptr,         nullptr,     0,     nullptr, nullptr,
                         nullptr,         nullptr,     0};
    int status = dk_engine_run(&job);
    /* four bytes, no newline: the chain reads the word as it stands */
    if (status == DK_ENGINE_SIGNED) fwrite("PASS", 1, 4, stderr);
    if (status == DK_ENGINE_SKIPPED) fwrite("SKIP", 1, 4, stderr);
    return status;
}
