#include "util/halyx_string.h"

#include "util/halyx_log.h"

#include <syslog.h>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

enum { STRING_INITIAL = 80, STRING_MIN_GROWTH = 80 };

/* ---- growable string buffer ---------------------------------------------- */

char *string_init(char **buffer, size_t *room)
{
    if (*buffer != nullptr) return *buffer;
    *room = STRING_INITIAL;
    char *b = (char *)malloc(STRING_INITIAL);
    if (b == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    b[0] = '\0';
    *room = STRING_INITIAL - 1;
    return *buffer = b;
}

char *string_reserve(char **buffer, size_t *room, size_t need)
{
    if (*room >= need) return *buffer;
    size_t grow = need - *room;
    if (grow < STRING_MIN_GROWTH) grow = STRING_MIN_GROWTH;
    size_t used = strlen(*buffer) + 1;
    size_t size = *room + used;
    if (size < used || size + grow < size) {
        errno = ERANGE;
        return nullptr;
    }
    char *b = (char *)realloc(*buffer, size + grow);
    if (b == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    *room += grow;
    return *buffer = b;
}

char *string_append(char **buffer, size_t *room, const char *s)
{
    size_t len = strlen(s);
    if (string_init(buffer, room) == nullptr || string_reserve(buffer, room, len) == nullptr)
        return nullptr;
    strcat(*buffer, s);
    *room -= len;
    return *buffer;
}

char *string_append_fmt(char **buffer, size_t *room, const char *fmt, ...)
{
    if (string_init(buffer, room) == nullptr) return nullptr;
    size_t used = strlen(*buffer);
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(*buffer + used, *room + 1, fmt, ap);
    va_end(ap);
    if (n < 0) return nullptr;
    if ((size_t)n >= *room + 1) {
        if (string_reserve(buffer, room, (size_t)n) == nullptr) return nullptr;
        va_start(ap, fmt);
        n = vsnprintf(*buffer + used, *room + 1, fmt, ap);
        va_end(ap);
        if (n < 0 || (size_t)n >= *room + 1) return nullptr;
    }
    *room -= (size_t)n;
    return *buffer;
}

/* ---- blank-separated line sections ---------------------------------------- */

int line_parse(line_sections *ls, const char *line)
{
    int count = 1;
    int quoted = 0, parens = 0, brackets = 0;
    size_t i = 0;

    ls->sections[0] = ls->text;
    for (; line[i] != '\0' && i < LINE_PARSE_MAX_TEXT; i++) {
        char c = line[i];
        ls->text[i] = c;
        if (c == '"') {
            quoted = !quoted;
        } else if (quoted) {
            continue;
        } else if (c == '(') {
            parens++;
        } else if (c == ')') {
            if (parens > 0) parens--;
        } else if (c == '[') {
            brackets++;
        } else if (c == ']') {
            if (brackets > 0) brackets--;
        } else if ((c == ' ' || c == '\t') && parens == 0 && brackets == 0) {
            ls->text[i] = '\0';
            ls->sections[count++] = &ls->text[i + 1];
            if (count > LINE_PARSE_MAX_SECTIONS) return -1;
        }
    }
    ls->text[i] = '\0';
    ls->count = count;
    return count;
}

char *get_section_by_prefix(line_sections *ls, const char *prefix)
{
    size_t len = strlen(prefix);
    for (int i = 0; i < ls->count; i++)
        if (strncmp(ls->sections[i], prefix, len) == 0) return ls->sections[i];
    return nullptr;
}

/* ---- trimming --------------------------------------------------------------- */

char *halyx_rtrim(char *s)
{
    size_t len = strlen(s);
    while (len > 0 && isspace((unsigned char)s[len - 1]))
        s[--len] = '\0';
    return s;
}
