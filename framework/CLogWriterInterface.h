#pragma once

#include <memory>

#include "framework/Export.h"

/// The host's log writer. The plug-in calls two slots, by position: the sixth writes, the ninth
/// tells the level. The order of the slots is part of the binary contract; the others are the
/// host's own and do nothing here.
///
/// Thread: every operation may be called from any thread at any time.
class MO_EXPORT CLogWriterInterface {
  public:
    virtual void HostSlot1() {}
    virtual void HostSlot2() {}
    virtual void HostSlot3() {}
    virtual void HostSlot4() {}
    virtual void HostSlot5() {}

    /// Writes one message. Callers ask GetDebugLevel() first, and write only what it lets through.
    /// `function` is the caller's full signature, `line` its source line; the two integers are
    /// always 0. `format` may or may not end in a line feed.
    virtual void WriteMessage(int level, const char* function, int line, int reserved1,
                              int reserved2, const char* format, ...)
        __attribute__((format(printf, 7, 8))) = 0;

    virtual void HostSlot7() {}
    virtual void HostSlot8() {}

    /// The current level: a message of level L is written when this is at least L. -1 errors,
    /// 0 confirmations, 1 start-up and progress, 2 output of reading commands, 6 detail.
    virtual int GetDebugLevel() = 0;

    virtual ~CLogWriterInterface() = default;
};

/// The process's log writer, never null: a writer on standard error at level 0 until the host puts
/// its own here. Replace it before other threads log; afterwards only the writer's own level
/// changes. A reference to what is never destroyed: threads may log while the process ends.
extern MO_EXPORT std::shared_ptr<CLogWriterInterface>& g_ptrLogWriter;
