#include "milter/long_lines.h"

#include <cstring>
#include <strings.h>

namespace keyseal_milter
{

void LineMeter::feed(const char *data, size_t length)
{
    const char *p = data, *end = data + length;
    while (p < end) {
        const char *nl = (const char *)memchr(p, '\n', end - p);
        if (nl == nullptr) {
            now_ += end - p;
            break;
        }
        size_t n = now_ + (nl - p);
        /* the CR of a CR LF, which may have come at the end of the last piece */
        if (n > 0 && (nl > p ? nl[-1] == '\r' : cr_)) n--;
        if (n > longest_) longest_ = n;
        now_ = 0;
        p = nl + 1;
    }
    if (length > 0) cr_ = data[length - 1] == '\r';
}

std::string fold_line(std::string_view line, size_t limit, std::string_view eol)
{
    std::string out;
    out.reserve(line.size() + (line.size() / (limit - 1) + 1) * (eol.size() + 1));
    size_t room = limit;
    while (line.size() > room) {
        out.append(line.substr(0, room));
        out.append(eol);
        out += ' ';
        line.remove_prefix(room);
        room = limit - 1;
    }
    out.append(line);
    return out;
}

namespace
{

/* each - calls f(line, end) for each line of text; end is its line end ("" for a last
 * line without one) */
template <class F> void each(std::string_view text, F f)
{
    while (!text.empty()) {
        size_t nl = text.find('\n');
        size_t stop = nl == std::string_view::npos ? text.size() : nl;
        size_t cut =
            stop > 0 && nl != std::string_view::npos && text[stop - 1] == '\r' ? stop - 1 : stop;
        std::string_view end =
            text.substr(cut, nl == std::string_view::npos ? stop - cut : stop - cut + 1);
        f(text.substr(0, cut), end);
        text.remove_prefix(cut + end.size());
    }
}

/* unix_breaks - a header value's CR LF line breaks as the LF the milter protocol carries */
std::string unix_breaks(std::string_view value)
{
    std::string out;
    out.reserve(value.size());
    for (size_t i = 0; i < value.size(); i++)
        if (!(value[i] == '\r' && i + 1 < value.size() && value[i + 1] == '\n')) out += value[i];
    return out;
}

} // namespace

Folding fold(std::string_view message, size_t limit)
{
    Folding f;
    f.message.reserve(message.size() + message.size() / limit * 3 + 3);
    /* the header: fields, each a line and the lines that begin with a blank after it */
    size_t at = 0;
    std::vector<std::pair<std::string, int>> seen; /* names so far, in lower case, counted */
    while (at < message.size()) {
        size_t nl = message.find('\n', at);
        if (nl == std::string_view::npos) nl = message.size() - 1;
        std::string_view line = message.substr(at, nl + 1 - at);
        if (line == "\r\n" || line == "\n") {
            f.message.append(line);
            at = nl + 1;
            break;
        }
        size_t end = nl + 1;
        while (end < message.size() && (message[end] == ' ' || message[end] == '\t')) {
            size_t next = message.find('\n', end);
            end = next == std::string_view::npos ? message.size() : next + 1;
        }
        std::string_view field = message.substr(at, end - at);
        at = end;
        std::string name(field.substr(0, field.find(':')));
        std::string lower = name;
        for (char &c : lower)
            c = (char)tolower((unsigned char)c);
        int index = 1;
        for (auto &[n, count] : seen)
            if (n == lower) index = ++count;
        if (index == 1) seen.emplace_back(lower, 1);
        std::string folded;
        int broken = 0;
        each(field, [&](std::string_view l, std::string_view eol) {
            if (l.size() > limit) {
                if (f.lines++ == 0) f.first = "header " + name + ":", f.first_length = l.size();
                broken++;
                folded += fold_line(l, limit, "\r\n");
            } else {
                folded.append(l);
            }
            folded.append(eol);
        });
        f.message += folded;
        if (broken > 0 && name.size() + 1 > limit) {
            if (f.name_too_long.empty()) f.name_too_long = name;
        } else if (broken > 0 && field.find(':') != std::string_view::npos) {
            std::string_view value = folded;
            value.remove_prefix(name.size() + 1);
            if (value.size() >= 2 && value.substr(value.size() - 2) == "\r\n")
                value.remove_suffix(2);
            else if (!value.empty() && value.back() == '\n')
                value.remove_suffix(1);
            f.headers.push_back({name, index, unix_breaks(value)});
        }
    }
    f.body_at = f.message.size();
    int number = 0;
    each(message.substr(at), [&](std::string_view l, std::string_view eol) {
        number++;
        if (l.size() > limit) {
            if (f.lines++ == 0)
                f.first = "body line " + std::to_string(number), f.first_length = l.size();
            f.body_folded = true;
            f.message += fold_line(l, limit, "\r\n");
        } else {
            f.message.append(l);
        }
        f.message.append(eol);
    });
    return f;
}

} // namespace keyseal_milter
