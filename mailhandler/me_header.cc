#include "mailhandler/me_header.h"

#include "mailhandler/mail_me.h"
#include "util/halyx_log.h"
#include "util/halyx_string.h"

#include <syslog.h>
#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <strings.h>

int me_header_init(me_header_list *list)
{
    list->first = nullptr;
    list->last = &list->first;
    return 0;
}

int me_header_add(me_header_list *list, char before, me_header *ref, const char *text)
{
    me_header *node = (me_header *)malloc(sizeof(*node));
    char *copy = node != nullptr ? strdup(text) : nullptr;
    if (copy == nullptr) {
        halyx_log(LOG_ERR, "System error: %s", strerror(errno));
        free(node);
        return -1;
    }
    node->text = copy;

    if (ref == nullptr && before)
        ref = list->first; /* becomes the first node (also of an empty list) */
    if (ref != nullptr && before) {
        node->next = ref;
        node->prev = ref->prev;
        *ref->prev = node;
        ref->prev = &node->next;
        return 0;
    }
    if (ref == nullptr) { /* append */
        node->next = nullptr;
        node->prev = list->last;
        *list->last = node;
        list->last = &node->next;
        return 0;
    }
    node->next = ref->next;
    node->prev = &ref->next;
    if (ref->next != nullptr)
        ref->next->prev = &node->next;
    else
        list->last = &node->next;
    ref->next = node;
    return 0;
}

me_header *me_header_remove(me_header_list *list, me_header *node)
{
    me_header *next = node->next;
    if (next != nullptr)
        next->prev = node->prev;
    else
        list->last = node->prev;
    *node->prev = next;
    free(node->text);
    free(node);
    return next;
}

void me_header_free(me_header_list *list)
{
    if (list == nullptr) return;
    while (list->first != nullptr)
        me_header_remove(list, list->first);
}

me_header *me_header_cut(me_header_list *list, me_header *node)
{
    me_header *next = me_header_remove(list, node);
    while (next != nullptr && isspace((unsigned char)next->text[0]))
        next = me_header_remove(list, next);
    return next;
}

/* empty_line - the separator test; a piece shorter than the pattern compares
 * over its own length, so a final lone "\r" counts as the CRLF empty line */
static const char *empty_line(const char *line)
{
    size_t len = strlen(line);
    if (strncmp(line, "\r\n", len < 3 ? len : 3) == 0) return "\r\n";
    if (strncmp(line, "\n", len < 2 ? len : 2) == 0) return "\n";
    return nullptr;
}

static const char EIGHT_SPACES[] = "        ";

int mail_header_read(FILE *in, mail_me *me)
{
    char buf[ME_HEADER_LINE_BUFFER];
    while (fgets(buf, sizeof(buf), in) != nullptr) {
        const char *sep = empty_line(buf);
        if (sep != nullptr) {
            me->line_end = sep;
            break;
        }
        if (me_header_add(&me->headers, 0, nullptr, buf) != 0) return -1;
        if (me->fold_indent == nullptr && (buf[0] == '\t' || buf[0] == ' '))
            me->fold_indent = buf[0] == '\t' ? "\t" : EIGHT_SPACES;
    }
    if (ferror(in)) return -1;
    if (me->fold_indent == nullptr) me->fold_indent = EIGHT_SPACES;
    if (me->line_end == nullptr) me->line_end = "\n";
    return 0;
}

int mail_header_write(FILE *out, mail_me *me)
{
    for (me_header *node = me->headers.first; node != nullptr; node = node->next) {
        size_t len = strlen(node->text);
        if (fwrite(node->text, 1, len, out) != len) return -1;
    }
    size_t len = strlen(me->line_end);
    return fwrite(me->line_end, 1, len, out) == len ? 0 : -1;
}

void mail_header_skip(FILE *in)
{
    char buf[ME_HEADER_LINE_BUFFER];
    while (fgets(buf, sizeof(buf), in) != nullptr)
        if (empty_line(buf) != nullptr) return;
}
