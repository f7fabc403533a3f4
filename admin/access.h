/*
 * access - what a user (the one the mail system runs the handler as) can do with the
 * handler's files: each probe is done in a child that took the user's identity, so the
 * answer is the kernel's, not a reading of modes.
 *
 * The constructor throws Usage for an unknown user; errors() returns an errno per probe
 * (0: it works); check_key and check_files report through Findings.  become() is for a
 * child only: it ends that child with 127 when the identity cannot be taken.
 */
#ifndef KEYSEAL_ADMIN_ACCESS_H
#define KEYSEAL_ADMIN_ACCESS_H

#include "admin/admin.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace keyseal_admin
{

/* Access - a user's identity and what it can do with the handler's files */
class Access
{
  public:
    enum Kind { READ, READ_IF_THERE, CREATE_IN, CONNECT };
    struct Probe {
        std::string path;
        Kind kind;
    };
    explicit Access(const std::string &name); /* throws Usage for an unknown user */
    static std::string default_user();
    /* become - take the user's identity for good (in a child); _exit(127) on failure */
    void become() const;
    std::vector<int> errors(const std::vector<Probe> &probes) const; /* an errno per probe */
    void check_key(const std::string &path, Findings &report) const;
    void check_files(Findings &report) const; /* the whitelist and the spool directory */
    std::string user, group;
    uid_t uid;
    gid_t gid;
};

} // namespace keyseal_admin

#endif
