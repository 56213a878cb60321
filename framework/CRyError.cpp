#include "framework/CRyError.h"

#include <cstdarg>

#include "framework/FXString.h"

struct CRyErrorDetail {
    int32_t number;
    std::string message;
    FXCodeLocation location;
};

int32_t CRyError::Number() const {
    return m_detail ? m_detail->number : 0;
}

const std::string& CRyError::Message() const {
    static const std::string empty;
    return m_detail ? m_detail->message : empty;
}

const FXCodeLocation* CRyError::Location() const {
    return m_detail ? &m_detail->location : nullptr;
}

CRyError FXErrorUtil::ErrorErrNo(const FXCodeLocation& location, int32_t number, const char* format,
                                 ...) {
    va_list args;
    va_start(args, format);
    std::string message = FXString::FormatV(format, args);
    va_end(args);

    CRyError error;
    error.m_code = static_cast<int32_t>(0x80000000U | static_cast<uint32_t>(number));
    error.m_detail = std::make_shared<const CRyErrorDetail>(
        CRyErrorDetail{number, std::move(message), location});
    return error;
}
