#include "admin/prom_file.h"

#include "admin/admin.h"
#include "admin/files.h"
#include "admin/keys.h"
#include "admin/names.h"
#include "admin/rotate.h"
#include "milter/metrics.h"

#include "dkim/dk_key.h"

#include <cinttypes>
#include <cstdio>
#include <filesystem>
#include <sys/stat.h>

namespace keyseal_admin
{

namespace
{

void help(std::string &out, const char *name, const char *type, const char *text)
{
    out += std::string("# HELP ") + name + " " + text + "\n# TYPE " + name + " " + type + "\n";
}

void sample(std::string &out, const char *name, const std::string &labels, int64_t value)
{
    char number[32];
    snprintf(number, sizeof(number), " %" PRId64 "\n", value);
    out.append(name).append("{").append(labels).append("}").append(number);
}

std::string key_labels(const KeyState &k)
{
    return "domain=\"" + keyseal_milter::label_value(k.domain) + "\",selector=\"" +
           keyseal_milter::label_value(k.selector) + "\"";
}

/* record_state - 1 when the one DKIM record at the key's selector holds its public key, 0
 * when there is none or it holds another; -1 when DNS gave no answer */
int record_state(const std::string &domain, const std::string &selector, const Nameservers &ns)
{
    std::string path = key_path(domain, selector), text;
    std::vector<std::string> records;
    try {
        records = lookup_txt(selector + "._domainkey." + domain, ns);
    } catch (const Problem &) {
        return -1;
    }
    if (records.size() != 1 || read_key_text(path, text) != DK_KEY_OK) return 0;
    Pkey key = load_key(text);
    if (!key) return 0;
    auto tags = record_tags(records[0]);
    /* a record without k= is an RSA key's */
    std::string k = tags.count("k") ? tags["k"] : "rsa";
    return k == key_type(key.get()) && !tags["p"].empty() && record_matches(tags["p"], key.get());
}

} // namespace

std::string key_metrics_text(const std::vector<KeyState> &keys,
                             const std::vector<RotationState> &rotations, time_t now)
{
    std::string out;
    help(out, "keyseal_key_age_seconds", "gauge",
         "Age of each signing key file (since it was last written).");
    for (const auto &k : keys)
        if (k.made != -1) sample(out, "keyseal_key_age_seconds", key_labels(k), now - k.made);
    help(out, "keyseal_dns_record_matches", "gauge",
         "1 when the DKIM record at the key's selector holds the key's public key, else 0 "
         "(absent when DNS gave no answer).");
    for (const auto &k : keys)
        if (k.matches != -1) sample(out, "keyseal_dns_record_matches", key_labels(k), k.matches);
    help(out, "keyseal_dns_lookup_success", "gauge",
         "1 when DNS answered the lookup of the key's record (with a record or none), else 0.");
    for (const auto &k : keys)
        sample(out, "keyseal_dns_lookup_success", key_labels(k), k.matches != -1);
    help(out, "keyseal_rotation_waiting_seconds", "gauge",
         "How long a key rotation under way has waited at its step (staged: the new key's "
         "record published, not yet signing; switched: the old key not yet retired).");
    for (const auto &r : rotations)
        sample(out, "keyseal_rotation_waiting_seconds",
               "domain=\"" + keyseal_milter::label_value(r.domain) + "\",step=\"" + r.step + "\"",
               now - r.since);
    help(out, "keyseal_key_state_timestamp_seconds", "gauge",
         "When keyseal-admin wrote this file.");
    out += "keyseal_key_state_timestamp_seconds " + std::to_string((int64_t)now) + "\n";
    return out;
}

std::vector<KeyState> key_states(const Nameservers &ns)
{
    std::vector<KeyState> out;
    for (const auto &[domain, selector] : all_keys()) {
        KeyState k{domain, selector};
        struct stat st;
        if (stat(key_path(domain, selector).c_str(), &st) == 0) k.made = st.st_mtime;
        k.matches = record_state(domain, selector, ns);
        out.push_back(k);
    }
    return out;
}

std::vector<RotationState> rotation_states()
{
    std::vector<RotationState> out;
    std::error_code ec;
    for (const auto &d : std::filesystem::directory_iterator(DK_KEYS_DIR, ec)) {
        std::string domain = d.path().filename();
        time_t started, switched, retired;
        if (!d.is_directory() || !valid_name(domain) ||
            !rotation_times(domain, started, switched, retired) || retired != -1)
            continue;
        out.push_back(switched != -1 ? RotationState{domain, "switched", switched}
                                     : RotationState{domain, "staged", started});
    }
    if (ec) throw Problem("cannot list the keys in " + errno_text(DK_KEYS_DIR));
    return out;
}

void write_key_metrics(const std::string &path, const Nameservers &ns)
{
    std::string text = key_metrics_text(key_states(ns), rotation_states(), time(nullptr));
    if (replace_file(path, text) != 0) throw Problem("cannot write " + errno_text(path));
}

} // namespace keyseal_admin
