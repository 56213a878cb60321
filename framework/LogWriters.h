#pragma once

#include <memory>
#include <vector>

#include "framework/CLogWriterInterface.h"

/// Ready-made log writers. Each writes one line a message (a trailing line feed of the format is
/// not doubled, embedded ones become blanks), in one system call, so that lines of different
/// threads never mix. The caller only queues it (framework/QueuedOutput.h): it waits for no reader.
/// Errors are important there. A host that ends by `_exit` calls QueuedOutput::Flush before.

/// What others can cause as often as they like: parts of the signatures of functions whose errors
/// are limited (framework/LogRateLimit.h). Each string must stay valid.
using LimitedFunctions = std::vector<const char*>;

/// Makes a writer on standard error: "[LEVEL] message", and for errors and traces (levels below 0
/// and from 6 on) "[LEVEL] message (function:line)".
MO_EXPORT std::shared_ptr<CLogWriterInterface> MakeStderrLogWriter(int level,
                                                                   LimitedFunctions limited = {});

/// Makes a writer to syslog, which the journal collects too: "message (function:line)". `ident`
/// names the program.
MO_EXPORT std::shared_ptr<CLogWriterInterface> MakeSyslogLogWriter(const char* ident, int level,
                                                                   LimitedFunctions limited = {});
