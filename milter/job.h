/*
 * job - the one place where keyseal-milter's settings and a message's envelope become the
 * Job its worker signs with: the signing domain, the handler's arguments, the policy
 * inputs, the selectors and the header set.  keyseal-milter builds every message's job
 * here, and keyseal-admin test its sample's, so that both sign alike.
 *
 * make_job() returns the Job by value; it throws nothing and logs nothing.  The one thing
 * it looks at outside its arguments: with signing_domain header, whether the From:
 * domain's key file exists.
 */
#ifndef KEYSEAL_MILTER_JOB_H
#define KEYSEAL_MILTER_JOB_H

#include "milter/milter_conf.h"
#include "milter/records.h"

#include <string>
#include <vector>

namespace keyseal_milter
{

/* Envelope - what the mail server told of one message */
struct Envelope {
    std::string sender;                  /* the envelope sender, as the client gave it */
    std::string domain;                  /* its domain as mail servers compare it */
    std::vector<std::string> recipients; /* the envelope recipients */
    bool local = false;                  /* submitted on the server itself */
    std::string auth;                    /* the SASL login name; "": none */
    std::string client;                  /* the SMTP client's address; "": unknown */
    std::vector<std::string> from;       /* the From: addresses' domains ("": none) */
    std::string queue_id;                /* the mail server's, the trace id of the log lines */
};

/* signing_domain - the envelope sender's domain; with signing_domain header, the single
 * From: address's domain instead where it has a key */
std::string signing_domain(const Config &config, const Envelope &envelope);

/* make_job - the worker's job for the message: signing domain, CONTEXT of its first
 * selector, TO (one empty word when there is no recipient), the policy inputs (a local
 * submission's client is none: the rule for it is the sendmail one), selectors, fields */
Job make_job(const Config &config, const Envelope &envelope);

} // namespace keyseal_milter

#endif
