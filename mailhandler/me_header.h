/*
 * me_header - a message's header block as an editable list of physical lines.
 *
 * One node holds one physical line exactly as read, line end included; a
 * folded header spans several nodes, and a line longer than the read buffer
 * spans several too.  The list owns its nodes and their texts; removing a
 * node frees both.  Texts added by a caller are copied and taken as given:
 * the list adds no line end.
 *
 * Results: int functions return 0, or -1 (memory, read or write error, logged
 * where memory failed); node functions return the following node or NULL.
 */
#ifndef ME_HEADER_H
#define ME_HEADER_H

#include <stdio.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ME_HEADER_LINE_BUFFER 32766 /* fgets size: at most 32765 characters a piece */

typedef struct me_header {
    char *text;
    struct me_header *next;
    struct me_header **prev; /* the previous node's next field, or the head's first */
} me_header;

typedef struct me_header_list {
    me_header *first;
    me_header **last; /* the last node's next field, or &first when empty */
} me_header_list;

struct mail_me;

int me_header_init(me_header_list *list);
/* me_header_add - copy text into a new node before/after ref; no ref: first (before) or last */
int me_header_add(me_header_list *list, char before, me_header *ref, const char *text);
me_header *me_header_remove(me_header_list *list, me_header *node);
void me_header_free(me_header_list *list);
/* me_header_cut - remove node and its continuation lines; returns the first node kept */
me_header *me_header_cut(me_header_list *list, me_header *node);

int mail_header_read(FILE *in, struct mail_me *me);
int mail_header_write(FILE *out, struct mail_me *me);
void mail_header_skip(FILE *in);

#ifdef __cplusplus
}
#endif

#endif
