#pragma once

#include <functional>
#include <string>

#include "framework/CRyError.h"

/// What `moscsi-host` prints: one line a step on standard output, at once, and what went wrong on
/// standard error.

class StepCount;

class Console {
  public:
    virtual ~Console() = default;

    /// Thread: any, for all three.
    virtual void Say(const std::string& line) = 0;
    virtual void Complain(const std::string& line) = 0;

    /// Says a line that somebody waits for.
    virtual void Announce(const std::string& line) { Say(line); }
};

/// Lines on the process's own streams, written when the call returns: for what a pager may read as
/// slowly as it likes.
class StandardConsole final : public Console {
  public:
    void Say(const std::string& line) override;
    void Complain(const std::string& line) override;
};

/// The same for a service: lines are queued (framework/QueuedOutput.h), in one order with those of
/// the log. Nobody waits for a reader; complaints and announcements are dropped last.
class QueuedConsole final : public Console {
  public:
    void Say(const std::string& line) override;
    void Complain(const std::string& line) override;
    void Announce(const std::string& line) override;
};

/// Runs one configuration step and says how it ended and how long it took; while it lasts, a line
/// every five seconds says that it still does.
/// `count` is told that one more is done, and its words end the line.
/// Returns: the operation's result. Thread: any; the operation runs on the caller's.
CRyError RunStep(Console& console, const std::string& what,
                 const std::function<CRyError()>& operation, StepCount* count = nullptr);
