#include "framework/FXString.h"

#include <cstdio>

std::string FXString::FormatV(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int length = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length < 0)
        return {};

    std::string text(static_cast<size_t>(length), '\0');
    std::vsnprintf(text.data(), text.size() + 1, format, args);
    return text;
}

void FXString::Format(std::string& out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = FormatV(format, args);  // before `out` changes: arguments may lie in it
    va_end(args);
    out = std::move(text);
}
