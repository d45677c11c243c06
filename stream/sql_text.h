// Statement texts without the heap. Private to stream/.
#pragma once

#include <cstdarg>
#include <cstdio>

/// One statement, ready for m_setSql. The longest one, with every number at its longest, has 235 characters.
struct SqlText {
    char text[640];
};

[[gnu::format(printf, 1, 2)]] inline SqlText sqlText(const char* format, ...) {
    SqlText sql;
    va_list values;
    va_start(values, format);
    std::vsnprintf(sql.text, sizeof sql.text, format, values);
    va_end(values);
    return sql;
}
