#include "admin/admin.h"

#include <cstdio>

namespace keyseal_admin
{

void Findings::line(const char *kind, const std::string &what) const
{
    if (quiet_) return;
    printf("%s: %s\n", kind, what.c_str());
    fflush(stdout);
}

} // namespace keyseal_admin
