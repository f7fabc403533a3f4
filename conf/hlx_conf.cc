#include "conf/hlx_conf.h"

#include "util/halyx_log.h"

#include <syslog.h>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

enum {
    /* 12 = LOG_USER | LOG_WARNING: a facility folded into the level, so that syslog files the
     * reader's complaints as user.warning, where the suite's tools have always looked */
    CONF_LOG_LEVEL = LOG_USER | LOG_WARNING,
    CONF_INITIAL_SLOTS = 20,
};

conf_table *theHlxConfHash = nullptr;
const char *theHlxConfArray[HLX_CONF_VARS];
int arrayInitialized = 0;

const char *const theHlxConfNames[HLX_CONF_VARS] = {
    "_MIN_POSSIBLE_HLX_CONF_VAR_NAME",
    "HALYX_MAILNAMES_D",
    "RBLSMTPD",
    "CLIENT_PHP_BIN",
    "LIB_CRYPTO_PATH",
    "LIB_SSL_PATH",
    "AWSTATS_DOC_D",
    "AWSTATS_TOOLS_D",
    "AWSTATS_BIN_D",
    "AWSTATS_ETC_D",
    "MAILMAN_VAR_D",
    "MAILMAN_ROOT_D",
    "PGSQL_DATA_D",
    "PGSQL_BIN_D",
    "MYSQL_BIN_D",
    "MYSQL_VAR_D",
    "WEB_STAT",
    "DUMP_D",
    "DUMP_TMP_D",
    "NAMED_RUN_ROOT_D",
    "HTTPD_BIN",
    "HTTPD_SERVICE",
    "HTTPD_LOG_D",
    "HTTPD_INCLUDE_D",
    "HTTPD_CONF_D",
    "HTTPD_VHOSTS_D",
    "MYSQL_SOCKET",
    "SA_MAX_MAIL_SIZE",
    "SNI_SUPPORT",
    "PRODUCT_ROOT_D",
    "_MAX_POSSIBLE_HLX_CONF_VAR_NAME",
};

const char *const theHlxConfDefauls[HLX_CONF_VARS] = {
    "_MIN_POSSIBLE_HLX_CONF_VAR_VALUE",
    "/var/qmail/mailnames",
    "/usr/sbin/rblsmtpd",
    "/usr/local/hlx/bin/php-cli",
    "/lib/libcrypto.so",
    "/lib/libssl.so",
    "/usr/share/awstats/wwwroot",
    "/usr/share/awstats/tools",
    "/usr/share/awstats/wwwroot/cgi-bin",
    "/etc/awstats",
    "/var/lib/mailman",
    "/usr/lib/mailman",
    "/var/lib/pgsql/data",
    "/usr/bin",
    "/usr/bin",
    "/var/lib/mysql",
    "/usr/bin/webalizer",
    "/var/lib/hlx/dumps",
    "/tmp",
    "/var/named/chroot",
    "/usr/sbin/httpd",
    "httpd",
    "/var/log/httpd",
    "/etc/httpd/conf.d",
    "/etc/httpd/conf",
    "/var/www/vhosts",
    "/var/lib/mysql/mysql.sock",
    "256000",
    "true",
    "/usr/local/hlx",
    "_MAX_POSSIBLE_HLX_CONF_VAR_VALUE",
};

int cmp_conf(const void *a, const void *b)
{
    return strcmp(((const conf_entry *)a)->name, ((const conf_entry *)b)->name);
}

static int out_of_memory(const char *what)
{
    halyx_log(CONF_LOG_LEVEL, what, strerror(ENOMEM));
    errno = ENOMEM;
    return -1;
}

int conf_init_r(conf_table *t)
{
    if (t->entries == nullptr) {
        t->entries = (conf_entry *)calloc(CONF_INITIAL_SLOTS, sizeof(conf_entry));
        if (t->entries == nullptr) return out_of_memory("Unable to read configuration: %s");
        t->capacity = CONF_INITIAL_SLOTS;
        t->count = 0;
        t->sorted = 1;
        return 0;
    }
    if (t->count < t->capacity) return 0;

    size_t slots = t->capacity * 2;
    bool overflow = slots / 2 != t->capacity || t->count + CONF_INITIAL_SLOTS < t->count;
    if (slots < t->count + CONF_INITIAL_SLOTS) slots = t->count + CONF_INITIAL_SLOTS;
    overflow = overflow || slots > SIZE_MAX / sizeof(conf_entry);
    conf_entry *grown =
        overflow ? nullptr : (conf_entry *)realloc(t->entries, slots * sizeof(conf_entry));
    if (grown == nullptr) return out_of_memory("Unable to read configuration: %s");
    /* conf_free_r walks every slot: the new ones must hold null pointers */
    memset(grown + t->capacity, 0, (slots - t->capacity) * sizeof(conf_entry));
    t->entries = grown;
    t->capacity = slots;
    return 0;
}

int conf_set_r(const char *name, const char *value, conf_table *t)
{
    if (conf_init_r(t) != 0) return -1;
    char *n = strdup(name), *v = strdup(value);
    if (n == nullptr || v == nullptr) {
        free(n);
        free(v);
        return out_of_memory("Unable to form configuration: %s");
    }
    for (size_t i = 0; i < t->count; i++) {
        if (strcmp(t->entries[i].name, n) == 0) {
            free(t->entries[i].value);
            t->entries[i].value = v;
            free(n);
            return 0;
        }
    }
    t->entries[t->count].name = n;
    t->entries[t->count].value = v;
    t->count++;
    t->sorted = 0;
    return 0;
}

void conf_finalize_r(conf_table *t)
{
    if (t->sorted) return;
    qsort(t->entries, t->count, sizeof(conf_entry), cmp_conf);
    t->sorted = 1;
}

const char *conf_get_r(const char *name, conf_table *t)
{
    if (t->entries == nullptr) return nullptr;
    if (!t->sorted) {
        for (size_t i = 0; i < t->count; i++)
            if (strcmp(t->entries[i].name, name) == 0) return t->entries[i].value;
        return nullptr;
    }
    size_t low = 0, high = t->count;
    while (low < high) {
        size_t middle = (low + high) / 2;
        int c = strcmp(name, t->entries[middle].name);
        if (c == 0) return t->entries[middle].value;
        if (c < 0)
            high = middle;
        else
            low = middle + 1;
    }
    return nullptr;
}

/*
 * value_end - where a value stops.  Each white-space character toggles a mark
 * and a non-blank clears it, so a single blank before the end or '#' is cut
 * while two are kept ('value  # note' keeps 'value  ', 'value\r\n' stays whole):
 * existing files depend on exactly this.
 */
static char *value_end(char *value)
{
    char *mark = nullptr, *p = value;
    for (; *p != '\0' && *p != '#'; p++) {
        if (isspace((unsigned char)*p))
            mark = mark == nullptr ? p : nullptr;
        else
            mark = nullptr;
    }
    return mark != nullptr ? mark : p;
}

/* parse_line - cut "NAME value" in place; 1 for a definition, 0 for nothing, -1 malformed */
static int parse_line(char *line, char **name, char **value)
{
    char *p = line;
    while (isspace((unsigned char)*p))
        p++;
    if (*p == '\0' || *p == '#') return 0;
    *name = p;
    while (isalnum((unsigned char)*p) || *p == '_')
        p++;
    if (p == *name || !isspace((unsigned char)*p)) {
        halyx_log(CONF_LOG_LEVEL,
                  "Invalid variable definition %s\nExpected a space after variable name\n", *name);
        return -1;
    }
    char *name_end = p;
    while (isspace((unsigned char)*p))
        p++;
    if (*p == '\0' || *p == '#') {
        halyx_log(CONF_LOG_LEVEL, "Invalid variable definition %s\nExpected a value", *name);
        return -1;
    }
    *value = p;
    *value_end(p) = '\0';
    *name_end = '\0';
    return 1;
}

int conf_read_file_r(const char *path, conf_table *t)
{
    if (conf_init_r(t) != 0) return -1;
    FILE *f = fopen(path, "rt");
    if (f == nullptr) {
        int err = errno;
        halyx_log(CONF_LOG_LEVEL, "unable to open configuration file %s: %s\n", path,
                  strerror(err));
        errno = err;
        return -1;
    }
    char *line = nullptr;
    size_t size = 0;
    for (size_t number = 1; getdelim(&line, &size, '\n', f) >= 0; number++) {
        char *name, *value;
        int parsed = parse_line(line, &name, &value);
        if (parsed < 0 && t->invalid_line == 0) t->invalid_line = number;
        if (parsed != 1) continue;
        if (conf_set_r(name, value, t) != 0) {
            int err = errno;
            fclose(f);
            free(line);
            errno = err;
            return -1;
        }
        /* the table is unsorted while it is read: the entry is found by a linear search */
        for (size_t i = 0; i < t->count; i++)
            if (strcmp(t->entries[i].name, name) == 0) t->entries[i].line = number;
    }
    conf_finalize_r(t);
    int rc = 0;
    if (ferror(f)) {
        int err = errno;
        halyx_log(CONF_LOG_LEVEL, "Unable to read configuration file: %s", strerror(err));
        errno = err;
        rc = -1;
    }
    free(line);
    fclose(f);
    return rc;
}

void conf_free_r(conf_table *t)
{
    if (t == nullptr) return;
    for (size_t i = 0; t->entries != nullptr && i < t->capacity; i++) {
        free(t->entries[i].name);
        free(t->entries[i].value);
    }
    free(t->entries);
    free(t);
}

static void init_array(void)
{
    if (!arrayInitialized) {
        memset(theHlxConfArray, 0, sizeof(theHlxConfArray));
        arrayInitialized = 1;
    }
}

int autoprepend(void)
{
    if (theHlxConfHash != nullptr) return 0;
    init_array();
    conf_table *t = (conf_table *)calloc(1, sizeof(*t));
    if (t == nullptr) {
        halyx_log(LOG_ERR, "Not enough memory to allocate Halyx runtime configuration structure");
        return -1;
    }
    if (conf_read_file_r(HLX_CONF_PATH, t) != 0) {
        int err = errno;
        conf_free_r(t); /* the next lookup tries the file again */
        errno = err;
        return -1;
    }
    theHlxConfHash = t;
    return 0;
}

const char *hlxConfGet(const char *name)
{
    if (theHlxConfHash == nullptr && autoprepend() != 0) return nullptr;
    return conf_get_r(name, theHlxConfHash);
}

const char *hlxConfGetByIndex(int index)
{
    init_array();
    if (index < 0 || index >= HLX_CONF_VARS) return nullptr;
    if (theHlxConfArray[index] == nullptr)
        theHlxConfArray[index] = hlxConfGet(theHlxConfNames[index]);
    return theHlxConfArray[index];
}

const char *hlxConfGetDefaultByIndex(int index)
{
    const char *v = hlxConfGetByIndex(index);
    if (v == nullptr && index >= 0 && index < HLX_CONF_VARS) v = theHlxConfDefauls[index];
    return v;
}

const char *hlxConfGetDefault(const char *name)
{
    /* the low sentinel is searched, the high one is not */
    for (int i = 0; i < _MAX_POSSIBLE_HLX_CONF_VAR; i++)
        if (strcmp(name, theHlxConfNames[i]) == 0) return hlxConfGetDefaultByIndex(i);
    halyx_log(LOG_ERR, "variable '%s' was found neither in %s, nor in compile-time defaults", name,
              HLX_CONF_PATH);
    return nullptr;
}
