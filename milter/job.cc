#include "milter/job.h"

#include "dkim/dk_key.h"

#include <cstdlib>
#include <sys/stat.h>

namespace keyseal_milter
{

std::string signing_domain(const Config &c, const Envelope &e)
{
    if (c.signing_domain != SigningDomain::HEADER || e.from.size() != 1 || e.from[0].empty())
        return e.domain;
    const std::string &d = e.from[0];
    char *path = dk_key_path(d.c_str(), c.selectors_for(d).front().c_str());
    struct stat st;
    bool key = stat(path, &st) == 0;
    free(path);
    return key ? d : e.domain;
}

Job make_job(const Config &c, const Envelope &e)
{
    Job job;
    job.queue_id = e.queue_id;
    job.from = e.sender;
    job.domain = signing_domain(c, e);
    job.context = c.context(job.domain);
    job.to = e.recipients.empty() ? std::vector<std::string>{""} : e.recipients;
    job.local = e.local;
    job.auth = e.auth;
    job.client = e.local ? "" : e.client;
    job.selectors = c.selectors_for(job.domain);
    job.headers = c.headers;
    job.oversign = c.oversign;
    return job;
}

} // namespace keyseal_milter
