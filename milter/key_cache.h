/*
 * key_cache - keyseal-milter's workers keep the private keys they have parsed
 * (milter/key_cache.cc).  Until key_cache_keep() every key is parsed and kept by no one:
 * the helper's warm-up parses its throwaway key so, and its workers start with an empty
 * cache.  Nothing here fails or logs.
 */
#ifndef KEYSEAL_MILTER_KEY_CACHE_H
#define KEYSEAL_MILTER_KEY_CACHE_H

/* key_cache_keep - parsed keys are kept from now on, in this process (a worker) */
void key_cache_keep();

#endif
