#pragma once

#include <memory>

#include "framework/CLogWriterInterface.h"

/// Ready-made log writers. Each writes one line a message (a trailing line feed of the format is
/// not doubled, embedded ones become blanks), in one system call, so that lines of different
/// threads never mix.

/// Makes a writer on standard error: "LEVEL function:line message".
MO_EXPORT std::shared_ptr<CLogWriterInterface> MakeStderrLogWriter(int level);

/// Makes a writer to syslog, which the journal collects too; `ident` names the program.
MO_EXPORT std::shared_ptr<CLogWriterInterface> MakeSyslogLogWriter(const char* ident, int level);
