#include "admin/dns_update.h"

#include "admin/files.h"
#include "admin/keys.h"
#include "admin/names.h"

#include "dkim/dk_key.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <ldns/ldns.h>
#include <map>
#include <netinet/in.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace keyseal_admin
{

const char DNS_CONF_PATH[] = "/etc/keyseal/dns.conf";

namespace
{

const uint32_t RECORD_TTL = 3600; /* a published key is long-lived; a rotation waits days */
const uint16_t TSIG_FUDGE = 300;
const char TSIG_ALGORITHM[] = "hmac-sha256.";
const size_t TXT_STRING_MAX = 255; /* the most octets one TXT string holds */

std::string lower(std::string s)
{
    for (char &c : s)
        c = (char)tolower((unsigned char)c);
    return s;
}

/* dname - a name as keyseal compares and stores it: lower case, no trailing dot */
std::string dname(std::string s)
{
    s = lower(s);
    while (!s.empty() && s.back() == '.')
        s.pop_back();
    return s;
}

/* within - name is zone or below it */
bool within(const std::string &name, const std::string &zone)
{
    return name == zone ||
           (name.size() > zone.size() && name[name.size() - zone.size() - 1] == '.' &&
            name.compare(name.size() - zone.size(), zone.size(), zone) == 0);
}

/* Owned - an ldns object freed by its own function */
template <typename T, void (*F)(T *)> struct Owned {
    T *p = nullptr;
    Owned() = default;
    explicit Owned(T *q) : p(q) {}
    ~Owned()
    {
        if (p != nullptr) F(p);
    }
    Owned(const Owned &) = delete;
    Owned &operator=(const Owned &) = delete;
    T *operator->() const { return p; }
    T *get() const { return p; }
};
using Pkt = Owned<ldns_pkt, ldns_pkt_free>;
using Rdf = Owned<ldns_rdf, ldns_rdf_deep_free>;
using RrList = Owned<ldns_rr_list, ldns_rr_list_deep_free>;
using LdnsResolver = Owned<ldns_resolver, ldns_resolver_deep_free>;
using Buffer = Owned<ldns_buffer, ldns_buffer_free>;

/* Address - "ADDRESS[:PORT]", "[V6]:PORT" or a bare IPv6 address, as a socket address */
struct Address {
    sockaddr_storage ss{};
    socklen_t len = 0;
    std::string ip;
    uint16_t port = 53;
};

bool parse_address(const std::string &text, Address &a)
{
    std::string host = text, port;
    if (!text.empty() && text[0] == '[') {
        size_t close = text.find(']');
        if (close == std::string::npos) return false;
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != ':') return false;
            port = text.substr(close + 2);
        }
    } else if (std::count(text.begin(), text.end(), ':') == 1) {
        host = text.substr(0, text.find(':'));
        port = text.substr(text.find(':') + 1);
    }
    if (!port.empty()) {
        char *end;
        long p = strtol(port.c_str(), &end, 10);
        if (*end != '\0' || p < 1 || p > 65535) return false;
        a.port = (uint16_t)p;
    }
    a.ip = host;
    auto *v4 = reinterpret_cast<sockaddr_in *>(&a.ss);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&a.ss);
    if (inet_pton(AF_INET, host.c_str(), &v4->sin_addr) == 1) {
        v4->sin_family = AF_INET;
        v4->sin_port = htons(a.port);
        a.len = sizeof(*v4);
        return true;
    }
    if (inet_pton(AF_INET6, host.c_str(), &v6->sin6_addr) == 1) {
        v6->sin6_family = AF_INET6;
        v6->sin6_port = htons(a.port);
        a.len = sizeof(*v6);
        return true;
    }
    return false;
}

/* server_resolver - ldns's resolver asking one server only, without recursion: the answer
 * is that server's own; the system's resolver (/etc/resolv.conf) when ip is "" */
ldns_resolver *server_resolver(const std::string &ip, uint16_t port, bool recurse)
{
    ldns_resolver *r = nullptr;
    if (ip.empty()) {
        if (ldns_resolver_new_frm_file(&r, nullptr) != LDNS_STATUS_OK)
            throw Problem("cannot read the resolver's settings /etc/resolv.conf");
        ldns_resolver_set_recursive(r, true);
        return r;
    }
    r = ldns_resolver_new();
    Rdf addr(ldns_rdf_new_frm_str(
        ip.find(':') == std::string::npos ? LDNS_RDF_TYPE_A : LDNS_RDF_TYPE_AAAA, ip.c_str()));
    if (r == nullptr || addr.get() == nullptr ||
        ldns_resolver_push_nameserver(r, addr.get()) != LDNS_STATUS_OK) {
        if (r != nullptr) ldns_resolver_deep_free(r);
        throw Problem("not an address: " + ip);
    }
    ldns_resolver_set_port(r, port);
    ldns_resolver_set_recursive(r, recurse);
    ldns_resolver_set_retry(r, 2);
    ldns_resolver_set_timeout(r, timeval{2, 0});
    return r;
}

/* Asked - one question's answer: answered false when no server replied or it failed */
struct Asked {
    bool answered = false;
    ldns_pkt_rcode rcode = LDNS_RCODE_NOERROR;
    std::vector<ldns_rr *> rrs; /* of the type asked, owned by pkt */
    Pkt pkt;
};

void ask(ldns_resolver *r, const std::string &name, ldns_rr_type type, Asked &a)
{
    Rdf qname(ldns_dname_new_frm_str(name.c_str()));
    if (qname.get() == nullptr) throw Problem("not a DNS name: " + name);
    ldns_pkt *p = nullptr;
    ldns_status st = ldns_resolver_query_status(&p, r, qname.get(), type, LDNS_RR_CLASS_IN,
                                                ldns_resolver_recursive(r) ? LDNS_RD : (uint16_t)0);
    a.pkt.p = p;
    if (st != LDNS_STATUS_OK || p == nullptr) return;
    a.rcode = ldns_pkt_get_rcode(p);
    a.answered = a.rcode == LDNS_RCODE_NOERROR || a.rcode == LDNS_RCODE_NXDOMAIN;
    ldns_rr_list *an = ldns_pkt_answer(p);
    for (size_t i = 0; a.answered && i < ldns_rr_list_rr_count(an); i++)
        if (ldns_rr_get_type(ldns_rr_list_rr(an, i)) == type)
            a.rrs.push_back(ldns_rr_list_rr(an, i));
}

/* txt_strings - a TXT record's character-strings */
std::vector<std::string> txt_strings(const ldns_rr *rr)
{
    std::vector<std::string> out;
    for (size_t i = 0; i < ldns_rr_rd_count(rr); i++) {
        const ldns_rdf *f = ldns_rr_rdf(rr, i);
        const uint8_t *d = ldns_rdf_data(f);
        size_t size = ldns_rdf_size(f);
        if (size >= 1 && (size_t)d[0] + 1 <= size) out.emplace_back((const char *)d + 1, d[0]);
    }
    return out;
}

std::string joined(const std::vector<std::string> &strings)
{
    std::string s;
    for (const auto &p : strings)
        s += p;
    return s;
}

std::string dname_text(const ldns_rdf *rdf)
{
    char *s = ldns_rdf2str(rdf);
    std::string out = s != nullptr ? s : "";
    free(s);
    return dname(out);
}

/* carries - a record's value is a DKIM key record of key */
bool carries(const std::string &value, EVP_PKEY *key)
{
    auto t = record_tags(value);
    std::string k = t.count("k") ? t["k"] : "rsa";
    return k == key_type(key) && !t["p"].empty() && record_matches(t["p"], key);
}

/* txt_rr - an RR of name, type TXT, the class and TTL given, with these strings as rdata
 * (none: an RRset's name in an UPDATE's prerequisites or deletions) */
ldns_rr *txt_rr(const std::string &name, ldns_rr_class c, uint32_t ttl,
                const std::vector<std::string> &strings)
{
    ldns_rr *rr = ldns_rr_new();
    ldns_rr_set_owner(rr, ldns_dname_new_frm_str(name.c_str()));
    ldns_rr_set_type(rr, LDNS_RR_TYPE_TXT);
    ldns_rr_set_class(rr, c);
    ldns_rr_set_ttl(rr, ttl);
    for (const auto &s : strings) {
        std::string wire(1, (char)s.size());
        wire += s;
        ldns_rr_push_rdf(rr, ldns_rdf_new_frm_data(LDNS_RDF_TYPE_STR, wire.size(), wire.data()));
    }
    return rr;
}

const char *rcode_name(int rcode)
{
    static const std::map<int, const char *> names = {
        {0, "NOERROR"},  {1, "FORMERR"},  {2, "SERVFAIL"}, {3, "NXDOMAIN"}, {4, "NOTIMP"},
        {5, "REFUSED"},  {6, "YXDOMAIN"}, {7, "YXRRSET"},  {8, "NXRRSET"},  {9, "NOTAUTH"},
        {10, "NOTZONE"}, {16, "BADSIG"},  {17, "BADKEY"},  {18, "BADTIME"}, {22, "BADTRUNC"}};
    auto it = names.find(rcode);
    return it == names.end() ? "an unknown code" : it->second;
}

/* primary_of - the address of the zone's primary: the setting, else the SOA's MNAME's first
 * IPv4 address through the system's resolver; "" with why when none is found */
std::string primary_of(const DnsZone &zone, std::string &why)
{
    if (!zone.primary.empty()) return zone.primary;
    LdnsResolver sys(server_resolver("", 53, true));
    Asked soa;
    ask(sys.get(), zone.zone, LDNS_RR_TYPE_SOA, soa);
    if (!soa.answered || soa.rrs.empty()) {
        why = "no SOA record for " + zone.zone + " (name the primary in the zone line)";
        return "";
    }
    std::string mname = dname_text(ldns_rr_rdf(soa.rrs[0], 0));
    Asked a;
    ask(sys.get(), mname, LDNS_RR_TYPE_A, a);
    if (a.rrs.empty()) {
        why = "the SOA's primary " + mname + " of " + zone.zone + " has no IPv4 address";
        return "";
    }
    char *ip = ldns_rdf2str(ldns_rr_rdf(a.rrs[0], 0));
    std::string out = ip;
    free(ip);
    return out;
}

} // namespace

std::string dns_conf_path()
{
    const char *env = getenv("KEYSEAL_DNS_CONF");
    return env != nullptr && *env != '\0' ? env : DNS_CONF_PATH;
}

const DnsZone *DnsConf::zone_for(const std::string &name) const
{
    std::string n = dname(name);
    const DnsZone *best = nullptr;
    for (const auto &z : zones)
        if (within(n, z.zone) && (best == nullptr || z.zone.size() > best->zone.size())) best = &z;
    return best;
}

std::string DnsConf::delegation_zone() const
{
    return delegation_zones.empty() ? "" : delegation_zones.front();
}

DnsConf load_dns_conf(const std::string &given)
{
    DnsConf conf;
    conf.path = given.empty() ? dns_conf_path() : given;
    std::ifstream in(conf.path);
    if (!in) {
        if (errno == ENOENT) return conf;
        throw Problem("cannot read " + errno_text(conf.path));
    }
    conf.exists = true;
    std::string line;
    for (int n = 1; std::getline(in, line); n++) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::vector<std::string> w;
        for (std::string s; words >> s;)
            w.push_back(s);
        if (w.empty()) continue;
        auto bad = [&](const std::string &why) {
            return Problem(conf.path + ":" + std::to_string(n) + ": " + why);
        };
        auto days = [&](int &out) {
            char *end;
            long d = w.size() == 2 ? strtol(w[1].c_str(), &end, 10) : 0;
            if (w.size() != 2 || *end != '\0' || d < 1 || d > 36500)
                throw bad(w[0] + " takes a number of days (1 to 36500)");
            out = (int)d;
        };
        if (w[0] == "zone") {
            DnsZone z;
            z.line = n;
            if (w.size() < 4 || w[2] != "key" || (w.size() != 4 && w.size() != 6) ||
                (w.size() == 6 && w[4] != "primary"))
                throw bad("expected 'zone ZONE key FILE [primary ADDRESS[:PORT]]'");
            z.zone = dname(w[1]);
            if (z.zone.empty() || !valid_name(z.zone.substr(0, z.zone.find('.'))))
                throw bad("not a zone name: " + w[1]);
            z.key_file = w[3];
            if (z.key_file[0] != '/') throw bad("the key file must be an absolute path: " + w[3]);
            if (w.size() == 6) {
                Address a;
                if (!parse_address(w[5], a)) throw bad("not an ADDRESS[:PORT]: " + w[5]);
                z.primary = w[5];
            }
            for (const auto &other : conf.zones)
                if (other.zone == z.zone)
                    throw bad("the zone " + z.zone + " is set already on line " +
                              std::to_string(other.line));
            conf.zones.push_back(z);
        } else if (w[0] == "delegation_zone") {
            if (w.size() != 2) throw bad("expected 'delegation_zone ZONE'");
            conf.delegation_zones.push_back(dname(w[1]));
        } else if (w[0] == "rotate_after") {
            days(conf.rotate_after_days);
        } else if (w[0] == "switch_alarm") {
            days(conf.switch_alarm_days);
        } else {
            throw bad("unknown setting '" + w[0] +
                      "' (zone, delegation_zone, rotate_after, switch_alarm)");
        }
    }
    return conf;
}

/* key_file_words - the words of a key file in the configuration syntax tsig-keygen writes:
 * quoted strings kept whole with their quotes, braces and semicolons as words of their own,
 * and the three comment forms (#, //, C's) dropped only outside quotes, since a base64 secret
 * may hold "//". A quote left open makes the whole file unreadable: no words. */
static std::vector<std::string> key_file_words(const std::string &text)
{
    std::vector<std::string> words;
    std::string word;
    auto end_word = [&] {
        if (!word.empty()) words.push_back(word);
        word.clear();
    };
    for (size_t i = 0; i < text.size(); i++) {
        char c = text[i];
        if (c == '"') {
            end_word();
            size_t close = text.find('"', i + 1);
            if (close == std::string::npos) return {};
            words.push_back(text.substr(i, close - i + 1));
            i = close;
        } else if (c == '#' || text.compare(i, 2, "//") == 0) {
            end_word();
            i = std::min(text.find('\n', i), text.size());
        } else if (text.compare(i, 2, "/*") == 0) {
            end_word();
            size_t close = text.find("*/", i + 2);
            i = close == std::string::npos ? text.size() : close + 1;
        } else if (c == '{' || c == '}' || c == ';') {
            end_word();
            words.push_back(std::string(1, c));
        } else if (isspace((unsigned char)c)) {
            end_word();
        } else {
            word += c;
        }
    }
    end_word();
    return words;
}

/* quoted - the text of a quoted word; "" for a word that is not quoted */
static std::string quoted(const std::string &word)
{
    return word[0] == '"' ? word.substr(1, word.size() - 2) : "";
}

TsigKey read_tsig_key(const std::string &path)
{
    struct stat st;
    if (stat(path.c_str(), &st) != 0) throw Problem("the TSIG key " + errno_text(path));
    if (st.st_mode & (S_IRWXG | S_IRWXO))
        throw Problem("the TSIG key " + path +
                      " can be read by group or others: chmod 0600 (anyone who reads it can "
                      "change the zone)");
    std::ifstream in(path);
    if (!in) throw Problem("cannot read the TSIG key " + errno_text(path));
    std::stringstream all;
    all << in.rdbuf();
    TsigKey key;
    std::vector<std::string> words = key_file_words(all.str());
    for (size_t i = 0; i + 1 < words.size(); i++) {
        if (words[i] == "key" && key.name.empty())
            key.name = dname(quoted(words[i + 1]));
        else if (words[i] == "algorithm" && key.algorithm.empty() && words[i + 1] != ";")
            key.algorithm = lower(words[i + 1]);
        else if (words[i] == "secret" && key.secret.empty())
            key.secret = quoted(words[i + 1]);
    }
    if (key.name.empty() || key.secret.empty() || key.algorithm.empty())
        throw Problem("the TSIG key " + path +
                      " is not in the form key \"NAME\" { algorithm hmac-sha256; secret "
                      "\"BASE64\"; }; (as tsig-keygen writes it)");
    if (key.algorithm != "hmac-sha256")
        throw Problem("the TSIG key " + path + " is " + key.algorithm +
                      ": keyseal signs its updates with hmac-sha256 (tsig-keygen -a hmac-sha256)");
    return key;
}

void check_dns_conf(Findings &report, const std::string &path)
{
    DnsConf conf;
    try {
        conf = load_dns_conf(path);
    } catch (const Problem &e) {
        report.error(e.what());
        return;
    }
    if (!conf.exists) return;
    for (const auto &z : conf.zones) {
        try {
            TsigKey k = read_tsig_key(z.key_file);
            report.ok("the zone " + z.zone + " is updated with the TSIG key " + k.name);
        } catch (const Problem &e) {
            report.error(conf.path + ":" + std::to_string(z.line) + ": " + e.what());
        }
        std::string why;
        try {
            std::string primary = primary_of(z, why);
            if (!primary.empty())
                report.ok("the zone " + z.zone + "'s primary is " + primary);
            else
                report.error(conf.path + ":" + std::to_string(z.line) + ": " + why);
        } catch (const Problem &e) {
            report.error(conf.path + ":" + std::to_string(z.line) + ": " + e.what());
        }
    }
    for (const auto &d : conf.delegation_zones)
        if (conf.zone_for(d) == nullptr)
            report.warning("the delegation_zone " + d +
                           " is in no zone keyseal may update: add a zone line for it");
}

std::vector<std::string> dkim_record_strings(EVP_PKEY *key)
{
    std::string value = "p=" + public_key_base64(key);
    std::vector<std::string> out{"v=DKIM1; k=" + key_type(key) + "; "};
    for (size_t at = 0; at < value.size(); at += TXT_STRING_MAX)
        out.push_back(value.substr(at, TXT_STRING_MAX));
    return out;
}

TxtRecord dkim_record(const std::string &domain, const std::string &selector, EVP_PKEY *key)
{
    return TxtRecord{dname(selector + "._domainkey." + domain), dkim_record_strings(key), key};
}

const char *refusal_name(Refusal r)
{
    switch (r) {
    case Refusal::NONE:
        return "NONE";
    case Refusal::BAD_KEY:
        return "BAD_KEY";
    case Refusal::REFUSED:
        return "REFUSED";
    case Refusal::NOT_ZONE:
        return "NOT_ZONE";
    case Refusal::OTHER_KEY:
        return "OTHER_KEY";
    case Refusal::CHANGED:
        return "CHANGED";
    case Refusal::NO_PRIMARY:
        return "NO_PRIMARY";
    case Refusal::NO_ANSWER:
        return "NO_ANSWER";
    case Refusal::FAILED:
        return "FAILED";
    }
    return "FAILED";
}

namespace
{

/* refuse - the whole update refused: every name not done, for that reason */
UpdateResult &refuse(UpdateResult &r, Refusal why, const std::string &text)
{
    r.refusal = why;
    r.text = text;
    for (auto &n : r.names)
        if (n.change != Change::UNCHANGED) {
            n.change = Change::NOT_DONE;
            n.refusal = why;
            n.text = text;
        }
    return r;
}

/* tsig_error - the TSIG error of a reply (BADSIG, BADKEY, BADTIME), 0 when none */
int tsig_error(ldns_pkt *reply)
{
    ldns_rr *t = ldns_pkt_tsig(reply);
    if (t == nullptr || ldns_rr_rd_count(t) < 6) return 0;
    return ldns_rdf2native_int16(ldns_rr_rdf(t, 5));
}

} // namespace

UpdateResult update_zone(const DnsZone &zone, const std::vector<TxtRecord> &publish,
                         const std::vector<std::string> &withdraw, bool force)
{
    UpdateResult r;
    r.zone = zone.zone;
    for (const auto &p : publish)
        r.names.push_back({dname(p.name), Change::NOT_DONE, Refusal::NONE, ""});
    for (const auto &w : withdraw)
        r.names.push_back({dname(w), Change::NOT_DONE, Refusal::NONE, ""});
    TsigKey key;
    try {
        key = read_tsig_key(zone.key_file);
    } catch (const Problem &e) {
        return refuse(r, Refusal::FAILED, e.what());
    }
    std::string why;
    try {
        r.primary = primary_of(zone, why);
    } catch (const Problem &e) {
        why = e.what();
    }
    Address to;
    if (r.primary.empty() || !parse_address(r.primary, to))
        return refuse(r, Refusal::NO_PRIMARY, why.empty() ? "not an address: " + r.primary : why);

    /* what the primary holds now: the prerequisites, and what need not change */
    LdnsResolver primary(server_resolver(to.ip, to.port, false));
    RrList prereq(ldns_rr_list_new()), updates(ldns_rr_list_new());
    bool to_send = false;
    for (size_t i = 0; i < r.names.size(); i++) {
        NameResult &n = r.names[i];
        const TxtRecord *want = i < publish.size() ? &publish[i] : nullptr;
        if (!within(n.name, zone.zone)) {
            n.refusal = Refusal::NOT_ZONE;
            n.text = n.name + " is not in the zone " + zone.zone;
            continue;
        }
        Asked now;
        ask(primary.get(), n.name, LDNS_RR_TYPE_TXT, now);
        if (!now.answered) {
            n.refusal = Refusal::NO_ANSWER;
            n.text = "the primary " + r.primary + " of " + zone.zone + " did not answer for " +
                     n.name +
                     (now.pkt.get() != nullptr
                          ? std::string(" (") + rcode_name(ldns_pkt_get_rcode(now.pkt.get())) + ")"
                          : "");
            continue;
        }
        bool same = false, same_key = false;
        if (want != nullptr && now.rrs.size() == 1) {
            same = txt_strings(now.rrs[0]) == want->strings;
            same_key = want->key != nullptr && carries(joined(txt_strings(now.rrs[0])), want->key);
        }
        if (want != nullptr && same) {
            n.change = Change::UNCHANGED;
            n.text = n.name + " holds this record already";
            continue;
        }
        if (want == nullptr && now.rrs.empty()) {
            n.change = Change::UNCHANGED;
            n.text = "there is no TXT record at " + n.name;
            continue;
        }
        if (want != nullptr && !now.rrs.empty() && !same_key && !force) {
            n.refusal = Refusal::OTHER_KEY;
            n.text = n.name + " holds " +
                     (now.rrs.size() > 1 ? std::to_string(now.rrs.size()) + " TXT records"
                                         : std::string("another record")) +
                     ": not replaced (--force replaces it)";
            continue;
        }
        /* the prerequisites: the name's TXT records exactly as seen, or none */
        if (now.rrs.empty()) {
            ldns_rr_list_push_rr(prereq.get(), txt_rr(n.name, LDNS_RR_CLASS_NONE, 0, {}));
        } else {
            for (ldns_rr *rr : now.rrs)
                ldns_rr_list_push_rr(prereq.get(),
                                     txt_rr(n.name, LDNS_RR_CLASS_IN, 0, txt_strings(rr)));
            ldns_rr_list_push_rr(updates.get(), txt_rr(n.name, LDNS_RR_CLASS_ANY, 0, {}));
        }
        if (want != nullptr)
            ldns_rr_list_push_rr(updates.get(),
                                 txt_rr(n.name, LDNS_RR_CLASS_IN, RECORD_TTL, want->strings));
        n.change = want == nullptr   ? Change::WITHDRAWN
                   : now.rrs.empty() ? Change::PUBLISHED
                                     : Change::REPLACED;
        to_send = true;
    }
    if (!to_send) return r;

    Rdf zone_name(ldns_dname_new_frm_str(zone.zone.c_str()));
    Pkt update(ldns_update_pkt_new(ldns_rdf_clone(zone_name.get()), LDNS_RR_CLASS_IN, prereq.get(),
                                   updates.get(), nullptr));
    ldns_pkt_set_random_id(update.get());
    if (ldns_pkt_tsig_sign(update.get(), key.name.c_str(), key.secret.c_str(), TSIG_FUDGE,
                           TSIG_ALGORITHM, nullptr) != LDNS_STATUS_OK)
        return refuse(r, Refusal::BAD_KEY,
                      "cannot sign with the TSIG key " + zone.key_file +
                          " (is its secret base64?)");
    Buffer wire(ldns_buffer_new(LDNS_MAX_PACKETLEN));
    /* the buffer grows past its first size; TCP's length prefix is 16 bits */
    if (ldns_pkt2buffer_wire(wire.get(), update.get()) != LDNS_STATUS_OK ||
        ldns_buffer_position(wire.get()) > 65535)
        return refuse(r, Refusal::FAILED, "the update does not fit in one DNS message");
    /* over TCP: an update of many names is larger than a datagram */
    uint8_t *answer = nullptr;
    size_t size = 0;
    ldns_status st = ldns_tcp_send(&answer, wire.get(), &to.ss, to.len, timeval{10, 0}, &size);
    r.messages = 1;
    if (st != LDNS_STATUS_OK || answer == nullptr) {
        free(answer);
        return refuse(r, Refusal::NO_ANSWER,
                      "the primary " + r.primary + " of " + zone.zone +
                          " did not answer the update: " + ldns_get_errorstr_by_id(st));
    }
    ldns_pkt *reply_p = nullptr;
    st = ldns_wire2pkt(&reply_p, answer, size);
    Pkt reply(reply_p);
    bool signed_ok =
        st == LDNS_STATUS_OK &&
        ldns_pkt_tsig_verify(reply.get(), answer, size, key.name.c_str(), key.secret.c_str(),
                             ldns_rr_rdf(ldns_pkt_tsig(update.get()), 3));
    free(answer);
    if (st != LDNS_STATUS_OK)
        return refuse(r, Refusal::FAILED, "unreadable reply from the primary " + r.primary);
    int rcode = ldns_pkt_get_rcode(reply.get()), terr = tsig_error(reply.get());
    r.rcode = rcode_name(terr != 0 ? terr : rcode);
    std::string by = " by " + r.primary + " for the zone " + zone.zone + " (" + r.rcode + ")";
    if (terr != 0 ||
        (rcode == LDNS_RCODE_NOTAUTH && ldns_pkt_tsig(reply.get()) != nullptr && !signed_ok))
        return refuse(r, Refusal::BAD_KEY,
                      "refused" + by + ": the server does not accept the TSIG key " + key.name +
                          " of " + zone.key_file);
    if (rcode == LDNS_RCODE_NOTAUTH || rcode == LDNS_RCODE_NOTZONE)
        return refuse(r, Refusal::NOT_ZONE,
                      "refused" + by + ": the server is not the primary of that zone");
    if (rcode == LDNS_RCODE_REFUSED)
        return refuse(r, Refusal::REFUSED,
                      "refused" + by + ": the key " + key.name + " may not update it");
    if (rcode == LDNS_RCODE_YXRRSET || rcode == LDNS_RCODE_NXRRSET ||
        rcode == LDNS_RCODE_YXDOMAIN || rcode == LDNS_RCODE_NXDOMAIN)
        return refuse(r, Refusal::CHANGED,
                      "not made" + by + ": the records changed meanwhile; run it again");
    if (rcode != LDNS_RCODE_NOERROR) return refuse(r, Refusal::FAILED, "failed" + by);
    if (!signed_ok)
        return refuse(r, Refusal::BAD_KEY,
                      "the reply" + by + " is not signed with the TSIG key " + key.name +
                          ": the update may have been made; run it again to see");
    for (auto &n : r.names) {
        if (n.change == Change::PUBLISHED) n.text = "published " + n.name;
        if (n.change == Change::REPLACED) n.text = "replaced the record at " + n.name;
        if (n.change == Change::WITHDRAWN) n.text = "withdrew the TXT record at " + n.name;
    }
    return r;
}

std::vector<UpdateResult> update_all(const DnsConf &conf, const std::vector<TxtRecord> &publish,
                                     const std::vector<std::string> &withdraw, bool force)
{
    std::map<const DnsZone *, std::pair<std::vector<TxtRecord>, std::vector<std::string>>> by_zone;
    UpdateResult none;
    for (const auto &p : publish) {
        const DnsZone *z = conf.zone_for(p.name);
        if (z != nullptr)
            by_zone[z].first.push_back(p);
        else
            none.names.push_back({dname(p.name), Change::NOT_DONE, Refusal::NO_PRIMARY,
                                  "no zone keyseal may update holds " + dname(p.name)});
    }
    for (const auto &w : withdraw) {
        const DnsZone *z = conf.zone_for(w);
        if (z != nullptr)
            by_zone[z].second.push_back(w);
        else
            none.names.push_back({dname(w), Change::NOT_DONE, Refusal::NO_PRIMARY,
                                  "no zone keyseal may update holds " + dname(w)});
    }
    /* one UPDATE per zone, split only where a DNS message (64 KiB) cannot hold them all: a
     * thousand RSA records are some 400 KiB */
    const size_t MESSAGE_BUDGET = 48 * 1024;
    std::vector<UpdateResult> out;
    for (const auto &z : conf.zones) {
        auto it = by_zone.find(&z);
        if (it == by_zone.end()) continue;
        const auto &[pub, gone] = it->second;
        size_t p = 0, w = 0;
        while (p < pub.size() || w < gone.size()) {
            std::vector<TxtRecord> some;
            std::vector<std::string> names;
            for (size_t bytes = 0; bytes < MESSAGE_BUDGET && (p < pub.size() || w < gone.size());) {
                if (p < pub.size()) {
                    bytes += 2 * pub[p].name.size() + 40;
                    for (const auto &str : pub[p].strings)
                        bytes += str.size() + 1;
                    some.push_back(pub[p++]);
                } else {
                    /* its prerequisite holds the record withdrawn: a key's worth */
                    bytes += 2 * gone[w].size() + 600;
                    names.push_back(gone[w++]);
                }
            }
            out.push_back(update_zone(z, some, names, force));
        }
    }
    if (!none.names.empty()) out.push_back(none);
    return out;
}

std::string canonical_dns_name(const std::string &name)
{
    return dname(name);
}

std::map<std::string, NameResult> results_by_name(const std::vector<UpdateResult> &updates)
{
    std::map<std::string, NameResult> out;
    for (const auto &u : updates)
        for (const auto &n : u.names) {
            NameResult r = n;
            if (!u.ok() && r.text.empty()) r.text = u.text;
            out[dname(n.name)] = r;
        }
    return out;
}

std::vector<std::string> lookup_txt(const std::string &name, const Nameservers &ns)
{
    /* the system's resolver, or the servers given, asked with recursion as a receiver does */
    LdnsResolver r(ns.empty() ? server_resolver("", 53, true) : ldns_resolver_new());
    if (!ns.empty()) {
        ldns_resolver_set_recursive(r.get(), true);
        ldns_resolver_set_retry(r.get(), 2);
        ldns_resolver_set_timeout(r.get(), timeval{2, 0});
        for (const auto &ip : ns) {
            Rdf addr(ldns_rdf_new_frm_str(LDNS_RDF_TYPE_A, ip.c_str()));
            if (addr.get() == nullptr) throw Problem("not an IPv4 address: " + ip);
            ldns_resolver_push_nameserver(r.get(), addr.get());
        }
    }
    Asked a;
    ask(r.get(), name, LDNS_RR_TYPE_TXT, a);
    if (!a.answered)
        throw Problem(a.pkt.get() == nullptr || a.rcode == LDNS_RCODE_SERVFAIL
                          ? "no answer for " + name + " (server failure or time-out)"
                          : "the resolver failed for " + name);
    std::vector<std::string> records;
    for (ldns_rr *rr : a.rrs)
        records.push_back(joined(txt_strings(rr)));
    return records;
}

std::vector<NameServer> authoritative_servers(const std::string &domain, std::string &zone)
{
    LdnsResolver sys(server_resolver("", 53, true));
    /* the zone is the closest enclosing name that has an SOA record of its own */
    for (std::string name = dname(domain);;) {
        Asked a;
        ask(sys.get(), name, LDNS_RR_TYPE_SOA, a);
        for (ldns_rr *rr : a.rrs)
            if (dname_text(ldns_rr_owner(rr)) == name) zone = name;
        if (!zone.empty()) break;
        if (!a.answered)
            throw Problem("no answer for the SOA record of " + name +
                          ": name the servers with --nameserver");
        size_t dot = name.find('.');
        if (dot == std::string::npos)
            throw Problem("no zone found above " + domain + ": name the servers with --nameserver");
        name = name.substr(dot + 1);
    }
    Asked hosts;
    ask(sys.get(), zone, LDNS_RR_TYPE_NS, hosts);
    std::vector<NameServer> out;
    for (ldns_rr *rr : hosts.rrs) {
        std::string host = dname_text(ldns_rr_rdf(rr, 0));
        Asked addr;
        ask(sys.get(), host, LDNS_RR_TYPE_A, addr);
        if (addr.rrs.empty()) out.push_back({host, ""});
        for (ldns_rr *a : addr.rrs) {
            char *ip = ldns_rdf2str(ldns_rr_rdf(a, 0));
            out.push_back({host, ip != nullptr ? ip : ""});
            free(ip);
        }
    }
    if (out.empty())
        throw Problem("no NS records for the zone " + zone +
                      ": name the servers with --nameserver");
    return out;
}

std::vector<ServerAnswer> zone_servers(const std::string &name, const Nameservers &given,
                                       std::string &zone)
{
    std::vector<ServerAnswer> out;
    if (!given.empty()) {
        for (const auto &ip : given)
            out.push_back({ip, ip, ""});
        return out;
    }
    for (const auto &ns : authoritative_servers(name, zone))
        out.push_back({ns.host, ns.ip, ""});
    return out;
}

/* served - what one server answers at name: "" when it is what is wanted (key, or no TXT
 * record when key is null) */
static std::string served(const std::string &name, const std::string &ip, EVP_PKEY *key)
{
    Asked a;
    try {
        LdnsResolver r(server_resolver(ip, 53, false));
        ask(r.get(), name, LDNS_RR_TYPE_TXT, a);
    } catch (const Problem &) {
        return "did not answer";
    }
    if (!a.answered) return "did not answer";
    if (key == nullptr) return a.rrs.empty() ? "" : "still answers a TXT record there";
    if (a.rrs.empty()) return "has no TXT record there";
    if (a.rrs.size() > 1) return "answers " + std::to_string(a.rrs.size()) + " TXT records";
    auto t = record_tags(joined(txt_strings(a.rrs[0])));
    std::string k = t.count("k") ? t["k"] : "rsa";
    if (k != key_type(key)) return "answers k=" + k;
    return record_matches(t["p"], key) ? "" : "answers another key";
}

std::vector<ServerAnswer> serves(const std::string &name, EVP_PKEY *key,
                                 std::vector<ServerAnswer> servers)
{
    for (auto &s : servers)
        s.why = s.ip.empty() ? "has no IPv4 address" : served(name, s.ip, key);
    return servers;
}

std::vector<ServerAnswer> wait_served(const std::string &name, EVP_PKEY *key,
                                      const std::vector<ServerAnswer> &servers, int wait_seconds,
                                      Findings &report)
{
    time_t until = time(nullptr) + wait_seconds;
    std::vector<ServerAnswer> now;
    for (;;) {
        now = serves(name, key, servers);
        bool all = std::all_of(now.begin(), now.end(), [](const auto &s) { return s.ok(); });
        if (all || time(nullptr) >= until) break;
        sleep(1);
    }
    for (const auto &s : now) {
        std::string who = s.ip + (s.host != s.ip ? " (" + s.host + ")" : "");
        if (s.ok())
            report.ok(who + (key != nullptr ? " serves the new key at " + name
                                            : " serves no TXT record at " + name));
        else
            report.error(who + " " + s.why);
    }
    return now;
}

std::string lagging(const std::vector<ServerAnswer> &now)
{
    std::string out;
    for (const auto &s : now)
        if (!s.ok())
            out += (out.empty() ? "" : ", ") + s.ip + (s.host != s.ip ? " (" + s.host + ")" : "") +
                   " " + s.why;
    return out;
}

namespace
{

/* change - one name's update, said in a line; exit 1 (Problem) when it was not made, else
 * the wait for every server */
int change(const std::string &name, const TxtRecord *publish, EVP_PKEY *key, bool force,
           int wait_seconds)
{
    DnsConf conf = load_dns_conf();
    const DnsZone *zone = conf.zone_for(name);
    if (zone == nullptr)
        throw Problem(
            "no zone line of " + conf.path + " encloses " + name + ": keyseal cannot update it" +
            (publish != nullptr ? " (publish what 'keyseal-admin dns' prints by hand)" : ""));
    std::vector<TxtRecord> p;
    std::vector<std::string> w;
    if (publish != nullptr)
        p.push_back(*publish);
    else
        w.push_back(name);
    UpdateResult r = update_zone(*zone, p, w, force);
    const NameResult &n = r.names.at(0);
    if (!r.ok()) throw Problem(r.text);
    if (n.change == Change::NOT_DONE) throw Problem(n.text);
    printf("%s%s in the zone %s at its primary %s\n",
           n.change == Change::UNCHANGED ? "unchanged: " : "", n.text.c_str(), zone->zone.c_str(),
           r.primary.c_str());
    std::string found;
    auto servers = zone_servers(name, {}, found);
    Findings report;
    auto now = wait_served(name, key, servers, wait_seconds, report);
    std::string late = lagging(now);
    if (!late.empty())
        throw Problem("not every server of the zone " + (found.empty() ? zone->zone : found) +
                      (key != nullptr ? " serves the record at " : " has withdrawn ") + name +
                      " after " + std::to_string(wait_seconds) + " seconds: " + late);
    return EXIT_OK;
}

/* the_key - the key of domain/selector, or Problem saying how to make one */
Pkey the_key(const std::string &domain, const std::string &selector)
{
    std::string path = key_path(domain, selector), text;
    if (read_key_text(path, text) != DK_KEY_OK)
        throw Problem("cannot read the key " + errno_text(path) +
                      ": make one with 'keyseal-admin keygen " + domain + " --selector " +
                      selector + "'");
    Pkey key = load_key(text);
    if (!key) throw Problem(path + " does not hold an RSA or Ed25519 private key");
    return key;
}

} // namespace

int cmd_dns_publish(std::string domain, const std::string &selector, bool force, int wait_seconds)
{
    check_names(domain, selector);
    Pkey key = the_key(domain, selector);
    TxtRecord rec = dkim_record(domain, selector, key.get());
    return change(rec.name, &rec, key.get(), force, wait_seconds);
}

int cmd_dns_withdraw(std::string domain, const std::string &selector, int wait_seconds)
{
    check_names(domain, selector);
    return change(dname(selector + "._domainkey." + domain), nullptr, nullptr, false, wait_seconds);
}

} // namespace keyseal_admin
