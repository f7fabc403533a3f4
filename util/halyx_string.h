/*
 * halyx_string - growable string buffer, string arrays, the blank-separated
 * section parser and in-place trimming.
 *
 * Growable buffer: the caller keeps (char *buf = NULL, size_t room) and passes
 * both by address; every call returns the buffer's current address, or NULL
 * with errno (ENOMEM, ERANGE) and the old block still owned by the caller, who
 * releases it with free().  Growth is by at least 80 characters at a time.
 *
 * String arrays are NULL-terminated heap arrays of heap copies (NULL = empty),
 * released with free_array().  Their failures are logged at level 3.
 *
 * line_parse() splits one line into at most 18 sections at SPACE/TAB outside
 * quotes, parentheses and brackets, into a caller-provided record; it returns
 * the count or -1 and never allocates.  The trims work in place.
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

/* ---- string arrays ---- */
char **string_to_mas(char ***array, const char *s);
char **string_split(const char *s, const char *delimiters);
void free_array(char ***array);

/* ---- blank-separated line sections ---- */
int line_parse(line_sections *ls, const char *line);
char *get_section(line_sections *ls, int i);
char *get_section_by_prefix(line_sections *ls, const char *prefix);

/* ---- trims and copies ---- */
char *halyx_rtrim(char *s);
char *halyx_rtrim_symbol(char *s, int c);
char *halyx_trim(char *s);
char *strip_str(char *s);
#ifndef HAVE_STRLCPY /* the C library's own where it has one */
size_t strlcpy(char *dst, const char *src, size_t size);
#endif

#ifdef __cplusplus
}
#endif

#endif
