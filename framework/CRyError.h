#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "framework/Export.h"

/// Where in the source an error was made. Holds copies, so it may outlive the caller's strings.
class MO_EXPORT FXCodeLocation {
  public:
    FXCodeLocation(const char* file, const char* function, int line)
        : m_file(file), m_function(function), m_line(line) {}

    const std::string& File() const { return m_file; }
    const std::string& Function() const { return m_function; }
    int Line() const { return m_line; }

  private:
    std::string m_file;
    std::string m_function;
    int m_line;
};

struct CRyErrorDetail;

/// The result of every platform operation, returned by value: a signed 32-bit code (negative means
/// error) and a shared detail (number, message, place) that is empty on success.
///
/// Copies share the detail, which never changes once made; distinct objects may be used from
/// distinct threads without a lock.
class MO_EXPORT CRyError {
  public:
    CRyError() = default;

    static CRyError Success() { return {}; }

    /// True exactly when the code's sign bit is set: a positive code is not an error.
    bool IsError() const { return m_code < 0; }

    /// The 32-bit code: 0 on success; 0x80000000 | number for an error, so that an error made with
    /// number 0 is still an error.
    int32_t Code() const { return m_code; }

    /// The number that the error was made with (one of the plug-in's own, or an errno); 0 on
    /// success.
    int32_t Number() const;

    /// The formatted text; empty on success.
    const std::string& Message() const;

    /// The place that made the error, or null on success. Valid as long as any copy of this error.
    const FXCodeLocation* Location() const;

  private:
    friend class FXErrorUtil;

    int32_t m_code = 0;
    std::shared_ptr<const CRyErrorDetail> m_detail;
};

/// Makes errors.
class MO_EXPORT FXErrorUtil {
  public:
    /// Makes an error from a number and a printf-style text.
    /// Returns: an error value, IsError() true for every number.
    /// Thread: any.
    static CRyError ErrorErrNo(const FXCodeLocation& location, int32_t number, const char* format,
                               ...) __attribute__((format(printf, 3, 4)));
};
