/*
 * hlx_conf - the suite's "NAME value" configuration file as a name -> value table.
 *
 * Reentrant table (conf_*_r): the caller allocates the record zeroed on the heap;
 * conf_free_r() releases the copies, the entries and the record.  Values returned
 * belong to the table.  int results are 0, or -1 with errno set.  Malformed lines
 * are logged and skipped.  All messages of the table go out with the level value
 * 12 (user facility, warning under syslog; never shown on the terminal streams).
 *
 * Process-wide view (hlxConf*): HLX_CONF_PATH loaded on first use and kept; a
 * failed load is retried on the next call; 29 known variables have compile-time
 * defaults.  Not thread-safe.
 */
#ifndef HLX_CONF_H
#define HLX_CONF_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define HLX_CONF_PATH "/etc/hlx/hlx.conf"

typedef struct conf_entry {
    char *name;
    char *value;
    size_t line; /* the file's line that set the value (1 first), 0 if set otherwise */
} conf_entry;

typedef struct conf_table {
    conf_entry *entries;
    size_t capacity;
    size_t count;
    int sorted;          /* entries ordered by name: lookups search by halves */
    size_t invalid_line; /* the first malformed line conf_read_file_r skipped, or 0 */
} conf_table;

int conf_init_r(conf_table *t);
int conf_set_r(const char *name, const char *value, conf_table *t);
void conf_finalize_r(conf_table *t);
const char *conf_get_r(const char *name, conf_table *t);
int conf_read_file_r(const char *path, conf_table *t);
void conf_free_r(conf_table *t);
int cmp_conf(const void *a, const void *b);

enum hlx_conf_var {
    _MIN_POSSIBLE_HLX_CONF_VAR = 0,
    HALYX_MAILNAMES_D,
    RBLSMTPD,
    CLIENT_PHP_BIN,
    LIB_CRYPTO_PATH,
    LIB_SSL_PATH,
    AWSTATS_DOC_D,
    AWSTATS_TOOLS_D,
    AWSTATS_BIN_D,
    AWSTATS_ETC_D,
    MAILMAN_VAR_D,
    MAILMAN_ROOT_D,
    PGSQL_DATA_D,
    PGSQL_BIN_D,
    MYSQL_BIN_D,
    MYSQL_VAR_D,
    WEB_STAT,
    DUMP_D,
    DUMP_TMP_D,
    NAMED_RUN_ROOT_D,
    HTTPD_BIN,
    HTTPD_SERVICE,
    HTTPD_LOG_D,
    HTTPD_INCLUDE_D,
    HTTPD_CONF_D,
    HTTPD_VHOSTS_D,
    MYSQL_SOCKET,
    SA_MAX_MAIL_SIZE,
    SNI_SUPPORT,
    PRODUCT_ROOT_D,
    _MAX_POSSIBLE_HLX_CONF_VAR,
    HLX_CONF_VARS /* number of indexes, sentinels included */
};

extern conf_table *theHlxConfHash;
extern const char *theHlxConfArray[HLX_CONF_VARS];
extern int arrayInitialized;
extern const char *const theHlxConfNames[HLX_CONF_VARS];
extern const char *const theHlxConfDefauls[HLX_CONF_VARS];

int autoprepend(void);
const char *hlxConfGet(const char *name);
/* the *ByIndex functions answer NULL for an index outside the enumeration */
const char *hlxConfGetByIndex(int index);
const char *hlxConfGetDefaultByIndex(int index);
const char *hlxConfGetDefault(const char *name);

#ifdef __cplusplus
}
#endif

#endif
