#pragma once

#include <cstdarg>
#include <string>

#include "framework/Export.h"

/// printf-style formatting into a std::string of any length.
class MO_EXPORT FXString {
  public:
    /// Replaces `out` by the formatted text. Arguments may point into `out` itself.
    static void Format(std::string& out, const char* format, ...)
        __attribute__((format(printf, 2, 3)));

    /// The same with an argument list, returning the text.
    static std::string FormatV(const char* format, va_list args)
        __attribute__((format(printf, 1, 0)));
};
