/*
 * whitelist - the C question of the handler: is this client address on the
 * DKIM sign whitelist file?  Never fails: any trouble is logged and answers false.
 * The networks read are kept for the process and read again when one stat of the file
 * shows another file or another size, modification or change time; a file that cannot
 * be stat'ed is read (or found missing) every time.
 */
#ifndef DKIM_WHITELIST_H
#define DKIM_WHITELIST_H

#include "dkim/dk_key.h"

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DK_WHITELIST_PATH DK_KEYS_DIR "/whitelist"

bool dkim_whitelist_contains(const char *ip);

#ifdef __cplusplus
}
#endif

#endif
