// The one place that runs configuration commands and judges what they print or return.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"

namespace {

/// The whole command line in lower case: names, paths and serials in it too, on purpose.
std::string LowerCase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return text;
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// Runs `cmd` and keeps the first line that it prints, line feed included; `line` stays as it is
/// when nothing comes. The exit status is not looked at.
/// Returns: false when it could not be started.
bool ReadFirstLine(const std::string& cmd, char* line, size_t size) {
    // Close-on-exec: what another thread starts meanwhile must not keep the pipe open.
    FILE* const pipe = popen(cmd.c_str(), "re");
    if (pipe == nullptr)
        return false;
    [[maybe_unused]] const char* const read = fgets(line, static_cast<int>(size), pipe);
    pclose(pipe);
    return true;
}

}  // namespace

CRyError MoScsiSrvLIO::TargetCliUpdateObject(
    const std::string& cmd,
    std::vector<std::string> tolerated) {  // NOLINT(performance-unnecessary-value-param)
    MO_TRACE(kTraceDetail);
    memset(m_outBuf, 0, sizeof m_outBuf);
    // Standard error joins the pipe first, then standard output is thrown away.
    const std::string line = LowerCase(cmd + " 2> /dev/stdout 1> /dev/null");
    if (!ReadFirstLine(line, m_outBuf, sizeof m_outBuf))
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "popen error cmd %s failed",
                                       cmd.c_str());

    const std::string output = m_outBuf;
    if (output.empty() || Contains(output, "exists") || Contains(output, "Exists"))
        return CRyError::Success();
    for (const std::string& text : tolerated) {
        if (Contains(output, text))
            return CRyError::Success();
    }
    MO_LOG(kLogError, "cmd %s failed. err %s", line.c_str(), output.c_str());
    return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "cmd %s failed. err %s", line.c_str(),
                                   output.c_str());
}

CRyError MoScsiSrvLIO::TargetCliReadObject(const std::string& cmd, std::string& out) {
    MO_TRACE(kTraceDetail);
    const std::string line = LowerCase(cmd);
    memset(m_outBuf, 0, sizeof m_outBuf);
    if (!ReadFirstLine(line, m_outBuf, sizeof m_outBuf)) {
        MO_LOG(kLogError, "popen error cmd  %s failed", line.c_str());  // two blanks, as ever
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "popen error cmd  %s failed",
                                       line.c_str());
    }
    MO_LOG(kLogOutput, "TargetCliReadObject: %s", m_outBuf);
    out = m_outBuf;
    return CRyError::Success();
}

CRyError MoScsiSrvLIO::System(const std::string& cmd) {
    if (std::system(cmd.c_str()) != 0) {
        MO_LOG(kLogError, "cmd: %s failed", cmd.c_str());
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "cmd: %s failed", cmd.c_str());
    }
    return CRyError::Success();
}
