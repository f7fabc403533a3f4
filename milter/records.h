/*
 * records - what travels between keyseal-milter, its helper and its workers: a Job (one
 * message's handler arguments and policy inputs, and how to sign), the Request that
 * carries it to a worker with the Limits of the moment, the Result (signed, skipped or
 * failed) that comes back, and the helper's Words to the milter, each with one encoder and
 * one decoder.
 *
 * The encoding is a tag byte, then fields in a fixed order: a number is four bytes
 * (little-endian), a wide one eight, a flag a number 0 or 1, a text its length as a number
 * and its bytes, a list its count and its items.  No field is delimited by a byte a field
 * may hold, so no text can end one field or start another.  encode() cannot fail; decode()
 * returns false for anything but one whole record of its kind (truncated, trailing bytes, a
 * count beyond the bytes left), leaving the record in an unspecified state.  Pure
 * functions: no I/O, nothing logged.
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

/* Limits - what the milter says with each job: the settings of the moment, so that a
 * reload reaches the helper and its workers without a restart */
struct Limits {
    uint32_t timeout = 30; /* seconds, waiting for a worker included */
    uint32_t workers = 1;  /* the most worker processes there may be */
    bool operator==(const Limits &) const = default;
};

/* KILL_GRACE - seconds between a worker's SIGTERM at its time limit and its SIGKILL */
constexpr uint32_t KILL_GRACE = 5;

/* answer_wait_ms - how long the milter waits for a job's Result: the time limit, the kill
 * grace, and a little more; past that the helper is not answering at all */
int answer_wait_ms(const Limits &limits);

/* The descriptors of a request, in this order, from the milter to a worker: the message;
 * the write end of the job's done pipe, on which the Result comes back framed (frame());
 * the encoded Job, only when it is too large to travel inline (JOB_INLINE_MAX). */
enum RequestFd { REQUEST_MESSAGE, REQUEST_DONE, REQUEST_JOB, REQUEST_FDS_MAX };
constexpr size_t JOB_INLINE_MAX = 16384;
/* REQUEST_BYTES_MAX - room enough for any request datagram */
constexpr size_t REQUEST_BYTES_MAX = JOB_INLINE_MAX + 64;

/* Request - one job's datagram: its number among the milter's jobs, when it was sent
 * (CLOCK_MONOTONIC, nanoseconds: its time limit counts from there), its limits, and the
 * encoded Job when inline ("" when it travels as the REQUEST_JOB file) */
struct Request {
    uint64_t seq = 0;
    uint64_t sent_ns = 0;
    Limits limits;
    bool job_inline = true;
    std::string job;
    bool operator==(const Request &) const = default;
};

/* request_fds - how many descriptors travel with the request: 2, or 3 with the job file */
int request_fds(const Request &request);

/* Word - what the helper says to the milter on the request socket: READY once, after its
 * warm-up; FAILED for a job (seq) whose worker ended before its Result, with a failed
 * Result saying why */
enum class Answer : uint8_t { READY = 'R', FAILED = 'F' };
struct Word {
    Answer answer = Answer::READY;
    uint64_t seq = 0;
    Result result;
    bool operator==(const Word &) const = default;
};

/* frame - a record as it goes through a pipe: its length, then its bytes */
std::string frame(const std::string &record);
/* unframe - the first whole frame at the start of in: true, record pointing into in */
bool unframe(std::string_view in, std::string_view &record);

/* retryable - a failed Result that a later try may cure, saying why */
Result retryable(const std::string &why);
/* no_worker_free - the failed Result of a job that waited its whole time limit for a worker */
Result no_worker_free(uint32_t timeout, uint32_t workers);

std::string encode(const Job &job);
std::string encode(const Result &result);
bool decode(std::string_view in, Job &job);
bool decode(std::string_view in, Result &result);
std::string encode(const Request &request);
bool decode(std::string_view in, Request &request);
std::string encode(const Word &word);
bool decode(std::string_view in, Word &word);

} // namespace keyseal_milter

#endif
