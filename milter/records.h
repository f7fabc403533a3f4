/*
 * records - what travels between keyseal-milter and its workers: a Job (one message's
 * handler arguments and policy inputs, and how to sign) and its Result (signed, skipped or
 * failed), each with one encoder and one decoder.
 *
 * The encoding is a tag byte, then fields in a fixed order: a number is four bytes
 * (little-endian), a flag a number 0 or 1, a text its length as a number and its bytes, a
 * list its count and its items.  No field is delimited by a byte a field may hold, so no text can
 * end one field or start another.  encode() cannot fail; decode() returns false for anything but
 * one whole record of its kind (truncated, trailing bytes, a count beyond the bytes left), leaving
 * the record in an unspecified state.  Pure functions: no I/O, nothing logged.
 */
#ifndef KEYSEAL_MILTER_RECORDS_H
#define KEYSEAL_MILTER_RECORDS_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace keyseal_milter
{

struct Job {
    std::string queue_id; /* the trace id of the handler's log lines */
    std::string from;     /* the handler's FROM, as the client gave it */
    std::string domain;   /* the signing domain the engine is given (lower case) */
    std::string context;  /* the handler's CONTEXT */
    std::vector<std::string> to;
    /* the policy inputs, as the chain's PPP_INSIDE_SENDMAIL, SMTP_AUTHORIZED, TCPREMOTEIP */
    bool local = false;                 /* submitted on the server itself */
    std::string auth;                   /* the SASL login name; "": none */
    std::string client;                 /* the SMTP client's address; "": none (or local) */
    std::vector<std::string> selectors; /* one signature each, in this order */
    std::vector<std::string> headers;   /* the fields signed when present */
    std::vector<std::string> oversign;  /* the fields signed once more than they occur */
    bool operator==(const Job &) const = default;
};

enum class Verdict : uint8_t { SIGNED = 1, SKIPPED = 2, FAILED = 3 };

struct Cut {
    uint32_t place;   /* among the message's DKIM-Signature headers, any case, 1 first */
    std::string text; /* the whole header as the engine cut it, line ends included */
    bool operator==(const Cut &) const = default;
};

struct Result {
    Verdict verdict = Verdict::FAILED;
    bool retry = false; /* FAILED: a later try may succeed (a key, a worker, the disk) */
    std::string reason; /* FAILED, or SIGNED with a failed second selector: for the log */
    std::vector<Cut> cuts;
    std::vector<std::string> signatures; /* "DKIM-Signature: ...\n", in order */
    bool operator==(const Result &) const = default;
};

/* Limits - what the milter says with each job it hands the helper: the settings of the
 * moment, so that a reload reaches the helper without a restart */
struct Limits {
    uint32_t timeout = 30; /* seconds, waiting for a worker included */
    uint32_t workers = 1;  /* the most worker processes there may be */
    bool operator==(const Limits &) const = default;
};

/* answer_deadline - seconds the milter waits for a job's answer: the time limit, the kill
 * grace, and a little; past that the helper is not answering at all */
uint32_t answer_deadline(uint32_t timeout);

/* retryable - a failed Result that a later try may cure, saying why */
Result retryable(const std::string &why);

std::string encode(const Job &job);
std::string encode(const Result &result);
bool decode(std::string_view in, Job &job);
bool decode(std::string_view in, Result &result);
std::string encode(const Limits &limits);
bool decode(std::string_view in, Limits &limits);

} // namespace keyseal_milter

#endif
