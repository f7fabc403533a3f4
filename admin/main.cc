/*
 * keyseal-admin - keys, DNS records, checks, the self-test, the whitelist, explain and
 * the spool, for the keyseal handler.
 * Exit status: 0 success, 1 a problem found, 2 a usage error.
 */
#include "admin/access.h"
#include "admin/check.h"
#include "admin/dns.h"
#include "admin/dns_update.h"
#include "admin/explain.h"
#include "admin/explain_queue.h"
#include "admin/hosted.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "admin/postfix_check.h"
#include "admin/postfix_setup.h"
#include "admin/report.h"
#include "admin/rotate.h"
#include "admin/selftest.h"
#include "admin/spool.h"
#include "admin/whitelist.h"
#include "milter/milter_conf.h"

#include "dkim/dk_key.h"
#include "util/halyx_log.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <syslog.h>
#include <unistd.h>

using namespace keyseal_admin;

/* installed_handler - keyseal beside this program, as the package and make install put it */
static std::string installed_handler()
{
    char self[PATH_MAX];
    ssize_t n = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (n <= 0) return "keyseal";
    std::string path(self, (size_t)n);
    return path.substr(0, path.rfind('/') + 1) + "keyseal";
}

int main(int argc, char **argv)
{
    /* before anything logs: the library's messages belong on the terminal, not in syslog */
    halyx_log_init("stderr", LOG_INFO, LOG_MAIL, 0, nullptr);
    /* a line at a time: what goes to standard output and error reads in the order written */
    setvbuf(stdout, nullptr, _IOLBF, 0);

    CLI::App app{"keyseal-admin - keys, DNS records, checks and the self-test for keyseal"};
    app.set_version_flag("--version", "keyseal-admin " KEYSEAL_VERSION);
    app.require_subcommand(1);
    std::string domain, selector = DK_DEFAULT_SELECTOR, group, nameservers;
    std::string keyseal = installed_handler();
    int bits = 2048;
    std::string type = "rsa";
    bool force = false;
    std::string user = Access::default_user();
    bool all = false;
    auto domain_arg = [&](CLI::App *c) {
        c->add_option("DOMAIN", domain, "the signing domain (the sender's domain)")->required();
        c->add_option("-s,--selector", selector, "the selector")->capture_default_str();
    };
    /* check and test: the DNS to ask, and the user the mail system runs the handler as */
    auto dns_args = [&](CLI::App *c) {
        c->add_option("--nameserver", nameservers,
                      "IPv4 nameservers to ask, separated by ',' (default: /etc/resolv.conf)");
        c->add_option("--user", user,
                      "the user the mail system runs keyseal as (default: " +
                          std::string(MILTER_USER) + " where that account exists)");
    };

    auto *keygen = app.add_subcommand("keygen", "generate a domain's key and print its DNS record");
    domain_arg(keygen);
    keygen->add_option("--type", type, "the key's type")
        ->check(CLI::IsMember({"rsa", "ed25519"}))
        ->capture_default_str();
    keygen->add_option("--bits", bits, "an RSA key's size")
        ->check(CLI::IsMember({1024, 2048, 3072, 4096}))
        ->capture_default_str();
    keygen->add_option("--group", group,
                       "the key readers' group (default: that of " DK_KEYS_DIR ")");
    keygen->add_flag("--force", force, "replace an existing key");
    bool missing = false;
    keygen->get_option("DOMAIN")->required(false);
    keygen->add_flag("--missing", missing,
                     "a key for every hosted domain that has none: those of Postfix's domain "
                     "lists, or of a FILE (one a line) named in place of DOMAIN");
    auto *dns = app.add_subcommand("dns", "print the DNS record of an existing key");
    domain_arg(dns);
    /* DOMAIN is checked below: "dns publish DOMAIN" gives it to the subcommand instead */
    dns->get_option("DOMAIN")->required(false);
    int wait_seconds = 300;
    std::string dns_selector = DK_DEFAULT_SELECTOR;
    auto *publish = dns->add_subcommand(
        "publish", "publish the key's record by DNS UPDATE and wait until every server serves it");
    auto *withdraw = dns->add_subcommand(
        "withdraw",
        "withdraw a selector's record by DNS UPDATE and wait until no server serves it");
    for (auto *c : {publish, withdraw}) {
        c->add_option("DOMAIN", domain, "the signing domain")->required();
        c->add_option("SELECTOR", dns_selector, "the selector")->required(c == withdraw);
        c->add_option("--wait", wait_seconds, "seconds to wait for every authoritative server")
            ->check(CLI::NonNegativeNumber)
            ->capture_default_str();
    }
    publish->add_flag("--force", force, "replace a record that holds another key");
    auto *check = app.add_subcommand("check", "check the key file and its published record");
    domain_arg(check);
    check->get_option("DOMAIN")->required(false);
    check->add_flag("--all", all, "every DOMAIN/SELECTOR key under " DK_KEYS_DIR);
    dns_args(check);
    auto *test =
        app.add_subcommand("test", "sign a sample with the installed handler and verify it");
    domain_arg(test);
    dns_args(test);
    test->add_option("--keyseal", keyseal, "the handler binary")->capture_default_str();

    std::string network, from, context;
    std::vector<std::string> env;
    auto *wl = app.add_subcommand("whitelist", "show, edit and lint the signing whitelist");
    wl->require_subcommand(1);
    wl->add_subcommand("list", "the entries, with what each really admits");
    wl->add_subcommand("lint", "every word that does not do what it looks like");
    for (const char *c : {"add", "remove"})
        wl->add_subcommand(c, std::string(c) + " a network")
            ->add_option("NETWORK", network, "ADDRESS or ADDRESS/PREFIX")
            ->required();
    wl->add_subcommand("check", "would the handler whitelist this client?")
        ->add_option("IP", network, "the client address (TCPREMOTEIP)")
        ->required();
    auto *explain = app.add_subcommand("explain", "replay the handler's decision for a message");
    explain->add_option("--from", from, "the envelope sender (default: the null sender)");
    explain->add_option("--context", context, "the handler's CONTEXT argument");
    explain->add_option("--env", env, "NAME=VALUE for a policy variable (repeatable)");
    std::string message;
    explain->add_option("--message", message, "the message (default: a sample from the sender)");
    std::string queue_id;
    std::vector<std::string> logs;
    explain
        ->add_option("--queue-id", queue_id,
                     "instead: what the mail log says became of this Postfix queue id")
        ->excludes("--from", "--context", "--env", "--message");
    explain->add_option("FILE", logs, "with --queue-id: mail log files (default: the journal)");
    std::string since;
    bool json = false;
    std::vector<std::string> files;
    auto *report = app.add_subcommand("report", "what the handler did, read from the mail log");
    report->add_option("--since", since, "YYYY-MM-DD, 'YYYY-MM-DD HH:MM', Nh or Nd");
    report->add_flag("--json", json, "one JSON object instead of the text report");
    report->add_option("FILE", files, "mail log files, plain or .gz (default: the journal)");
    auto *postfix = app.add_subcommand("postfix", "put keyseal-milter into Postfix's mail flow");
    postfix->require_subcommand(1);
    postfix->add_subcommand("setup", "write the settings with postconf, keeping copies");
    postfix->add_subcommand("check", "name every pitfall of the live configuration");
    postfix->add_subcommand("remove", "undo what setup wrote, where it still has setup's values");
    auto *rotate = app.add_subcommand("rotate", "replace a domain's key without a gap in signing");
    rotate->require_subcommand(1);
    std::string rotate_type, selector_of, replaces, new_selector;
    std::vector<std::string> rotate_ns;
    auto *start = rotate->add_subcommand("start", "a new key under a new selector, to publish");
    start->add_option("DOMAIN", domain, "the signing domain")->required();
    start->add_option("--type", rotate_type, "the new key's type (default: the old key's)")
        ->check(CLI::IsMember({"rsa", "ed25519"}));
    start->add_option("-s,--selector", new_selector, "the new selector (default: sYYYYMMDD)");
    start
        ->add_option("--selector-of", selector_of,
                     "of a domain that signs twice, rotate the selector of this key type")
        ->check(CLI::IsMember({"rsa", "ed25519"}));
    start->add_option("--replaces", replaces,
                      "the selector being replaced, where it cannot be found out (the handler "
                      "chain's CONTEXT)");
    rotate->add_subcommand("status", "each domain in rotation, and the next step")
        ->add_option("DOMAIN", domain, "only this domain");
    auto *sw = rotate->add_subcommand(
        "switch", "sign with the new selector once every nameserver serves its record");
    sw->add_option("DOMAIN", domain, "the signing domain")->required();
    sw->add_option("--nameserver", rotate_ns,
                   "ask these IPv4 servers instead of the zone's NS (repeatable, or ',' lists)");
    sw->add_flag("--force", force, "switch even when a server does not serve the new key");
    auto *retire = rotate->add_subcommand("retire", "move the old key aside after a week");
    retire->add_option("DOMAIN", domain, "the signing domain")->required();
    retire->add_flag("--force", force, "retire before the grace period is over");
    bool clean = false;
    long older_than = 3600;
    auto *spool = app.add_subcommand("spool", "list the spool directory; clean old leftovers");
    spool->add_flag("--clean", clean, "remove spool files older than --older-than");
    spool->add_option("--older-than", older_than, "seconds")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();

    /* CLI11 would only say that a command is required: name the word it did not know */
    CLI::App *level = &app;
    for (int i = 1; i < argc && level != nullptr && argv[i][0] != '-'; i++) {
        auto known = level->get_subcommands([](CLI::App *) { return true; });
        /* a command with optional subcommands ("dns DOMAIN") takes other words as arguments */
        if (known.empty() || level->get_require_subcommand_min() == 0) break;
        CLI::App *next = nullptr;
        std::string names;
        for (auto *c : known) {
            if (c->get_name() == argv[i]) next = c;
            names += (names.empty() ? "" : ", ") + c->get_name();
        }
        if (next == nullptr) {
            fprintf(stderr, "keyseal-admin: unknown command '%s'; the commands%s%s are: %s\n",
                    argv[i], level == &app ? "" : " of ",
                    level == &app ? "" : level->get_name().c_str(), names.c_str());
            return EXIT_USAGE;
        }
        level = next;
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &e) {
        int rc = app.exit(e);
        return rc == 0 ? EXIT_OK : EXIT_USAGE;
    }

    CLI::App *command = app.get_subcommands().front();
    std::string name = command->get_name();
    if (name == "whitelist" || name == "postfix" || name == "rotate" ||
        (name == "dns" && !command->get_subcommands().empty()))
        name += " " + command->get_subcommands().front()->get_name();
    try {
        const char *ed25519_bits = "--bits is for RSA keys; an Ed25519 key has one size";
        if (name == "keygen" && missing) {
            if (type != "rsa" && keygen->count("--bits") > 0) throw Usage(ed25519_bits);
            if (force)
                throw Usage("--missing makes keys only where there is none: not with --force");
            /* a FILE here, not a domain */
            return cmd_keygen_missing(domain, keygen->count("--selector") > 0 ? selector : "", type,
                                      bits, group);
        }
        /* keys are stored and looked up under the domain as mail servers compare it */
        if (!domain.empty()) domain = canonical_domain(domain);
        if (name == "keygen" && domain.empty())
            throw Usage("name a DOMAIN, or --missing for every hosted domain without a key");
        if (name == "keygen") {
            if (type != "rsa" && keygen->count("--bits") > 0) throw Usage(ed25519_bits);
            return cmd_keygen(domain, selector, type, bits, group, force);
        }
        if (name == "dns publish")
            return cmd_dns_publish(domain, dns_selector, force, wait_seconds);
        if (name == "dns withdraw") return cmd_dns_withdraw(domain, dns_selector, wait_seconds);
        if (name == "dns") {
            if (domain.empty()) throw Usage("name a DOMAIN (or: dns publish, dns withdraw)");
            return cmd_dns(domain, selector);
        }
        if (name == "whitelist list") return cmd_whitelist_list();
        if (name == "whitelist lint") return cmd_whitelist_lint();
        if (name == "whitelist add") return cmd_whitelist_add(network);
        if (name == "whitelist remove") return cmd_whitelist_remove(network);
        if (name == "whitelist check") return cmd_whitelist_check(network);
        if (name == "explain" && !queue_id.empty()) return cmd_explain_queue(queue_id, logs);
        if (name == "explain") {
            if (!logs.empty()) throw Usage("log FILEs go with --queue-id");
            return cmd_explain(from, context, env, message);
        }
        if (name == "spool") return cmd_spool(clean, older_than);
        if (name == "report") return cmd_report(since, json, files);
        if (name == "postfix setup") return cmd_postfix_setup();
        if (name == "postfix check") return cmd_postfix_check();
        if (name == "postfix remove") return cmd_postfix_remove();
        if (name == "rotate start")
            return cmd_rotate_start(domain, rotate_type, new_selector, selector_of, replaces);
        if (name == "rotate status") return cmd_rotate_status(domain);
        if (name == "rotate switch") {
            Nameservers given;
            for (const auto &list : rotate_ns)
                for (const auto &ip : parse_nameservers(list))
                    given.push_back(ip);
            return cmd_rotate_switch(domain, given, force);
        }
        if (name == "rotate retire") return cmd_rotate_retire(domain, force);
        Nameservers ns = parse_nameservers(nameservers);
        std::unique_ptr<Access> as;
        if (!user.empty()) as = std::make_unique<Access>(user);
        if (name == "check") {
            if (all == !domain.empty()) throw Usage("name a DOMAIN, or --all for every key");
            return cmd_check(domain, selector, ns, as.get(), all);
        }
        return cmd_test(domain, selector, ns, keyseal, as.get());
    } catch (const Usage &e) {
        fprintf(stderr, "keyseal-admin %s: %s\n", name.c_str(), e.what());
        return EXIT_USAGE;
    } catch (const Problem &e) {
        fprintf(stderr, "keyseal-admin %s: %s\n", name.c_str(), e.what());
        return EXIT_PROBLEM;
    }
}
