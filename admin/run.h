/*
 * run - another program run to its end with its output caught: postconf, postmap,
 * systemctl, the handler in the self-test.
 *
 * run_program throws Problem when no process can be made; a program that cannot be
 * executed shows as exit status 127.  The Run returned owns the caught output.
 */
#ifndef KEYSEAL_ADMIN_RUN_H
#define KEYSEAL_ADMIN_RUN_H

#include "admin/access.h"

#include <string>
#include <vector>

namespace keyseal_admin
{

struct Run {
    int status = -1; /* as waitpid() gives it; exit status 127: it could not be run */
    std::string out, err;
};
/* run_program - path with args (and env, or this environment when env is empty), input on
 * its standard input, as user when given; both output streams caught */
Run run_program(const std::string &path, const std::vector<std::string> &args,
                const std::vector<std::string> &env, const std::string &input,
                const Access *user = nullptr);

} // namespace keyseal_admin

#endif
