/*
 * halyx_string - growable string buffer, the blank-separated section parser and
 * in-place trimming.
 *
 * Growable buffer: the caller keeps (char *buf = NULL, size_t room) and passes
 * both by address; every call returns the buffer's current address, or NULL
 * with errno (ENOMEM, ERANGE) and the old block still owned by the caller, who
 * releases it with free().  Growth is by at least 80 characters at a time.
 *
 * line_parse() splits one line into at most 18 sections at SPACE/TAB outside
 * quotes, parentheses and brackets, into a caller-provided record; it returns
 * the count or -1 and never allocates.  halyx_rtrim() works in place.
 */
#ifndef HALYX_STRING_H
#define HALYX_STRING_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

#define LINE_PARSE_MAX_TEXT 1024
#define LINE_PARSE_MAX_SECTIONS 18

typedef struct line_sections {
    int count;
    char text[LINE_PARSE_MAX_TEXT + 1];
    char *sections[LINE_PARSE_MAX_SECTIONS + 1];
} line_sections;

/* ---- growable string buffer ---- */
char *string_init(char **buffer, size_t *room);
char *string_reserve(char **buffer, size_t *room, size_t need);
char *string_append(char **buffer, size_t *room, const char *s);
char *string_append_fmt(char **buffer, size_t *room, const char *fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- blank-separated line sections ---- */
int line_parse(line_sections *ls, const char *line);
char *get_section_by_prefix(line_sections *ls, const char *prefix);

/* ---- trimming ---- */
char *halyx_rtrim(char *s);

#ifdef __cplusplus
}
#endif

#endif
