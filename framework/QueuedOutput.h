#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <string>
#include <thread>

#include "framework/Export.h"
#include "framework/Mutex.h"

/// Lines on their way out of the process: whoever has one queues it and goes on; a thread of the
/// queue's own writes it. A pipe that nobody reads, a stopped terminal or a syslog that hangs stops
/// that thread and nothing else.

/// The lines for one destination, in the order in which they were put.
///
/// What doesn't fit is dropped, the newest first, and counted; important lines have a reserve that
/// ordinary ones can't take. Once the destination has taken half of what waits, one line says how
/// many there were, in their place.
///
/// Thread: any, for every operation.
class MO_EXPORT OutputQueue {
  public:
    enum class Rank { Ordinary, Important };

    struct Line {
        int target;  ///< a descriptor, a syslog priority: the writing function knows
        std::string text;
    };

    /// Writes one line, on the queue's thread; it may block for as long as it has to.
    using Write = std::function<void(const Line&)>;

    /// The line that tells of `count` dropped ones.
    using Note = std::function<Line(size_t count)>;

    /// In bytes of text, each line counted with what the queue needs for it.
    struct Limits {
        size_t ordinary = size_t{512} * 1024;
        size_t reserve = size_t{256} * 1024;  ///< on top, for important lines
    };

    OutputQueue(Write write, Note note, Limits limits);

    /// Waits for the line that is being written. Never called for the process's own queues.
    ~OutputQueue();
    OutputQueue(const OutputQueue&) = delete;
    OutputQueue& operator=(const OutputQueue&) = delete;

    /// Queues a line; the thread starts with the first one. Never waits for the destination. A line
    /// for which there is no memory counts as dropped; one for which there is no thread stays
    /// queued, and the next Put tries again.
    void Put(Line line, Rank rank) noexcept MO_EXCLUDES(m_mutex);

    /// Waits until all that was put is written. Returns: false when `deadline` came first.
    bool Flush(std::chrono::steady_clock::time_point deadline) MO_EXCLUDES(m_mutex);

    /// Lines not written yet. May be called in a signal's handler.
    size_t Pending() const noexcept { return m_pending.load(); }

  private:
    void Run() MO_EXCLUDES(m_mutex);
    void StartLocked() MO_REQUIRES(m_mutex);
    void AppendLocked(Line line) MO_REQUIRES(m_mutex);
    void TellOfDroppedLocked() MO_REQUIRES(m_mutex);

    // Constant after construction.
    const Write m_write;
    const Note m_note;
    const Limits m_limits;

    std::atomic<size_t> m_pending{0};  // changed with the mutex held

    Mutex m_mutex;
    std::condition_variable_any m_change;
    std::deque<Line> m_lines MO_GUARDED_BY(m_mutex);
    size_t m_bytes MO_GUARDED_BY(m_mutex) = 0;    // of m_lines
    size_t m_dropped MO_GUARDED_BY(m_mutex) = 0;  // since the last line that told
    bool m_ending MO_GUARDED_BY(m_mutex) = false;
    std::thread m_thread MO_GUARDED_BY(m_mutex);
};

/// The process's own output. Standard output and error share a queue, and so keep their order, when
/// they are one file; otherwise one that nobody reads doesn't hold up the other. They are flushed
/// when the process ends by exit or by a return from main; before `_exit` it is the caller's to
/// flush.
///
/// Thread: any.
namespace QueuedOutput {

/// How long a way out may wait for a reader.
constexpr std::chrono::milliseconds kFlushLimit{1000};

/// Queues a line, line feed included, for a descriptor: standard output or standard error.
MO_EXPORT void Put(int descriptor, std::string line, OutputQueue::Rank rank) noexcept;

/// Queues a message for syslog. Requires: whoever called openlog leaves it open.
MO_EXPORT void PutSyslog(int priority, std::string message, OutputQueue::Rank rank) noexcept;

/// Waits until everything is written. Returns: false when the limit came first.
MO_EXPORT bool Flush(std::chrono::milliseconds limit = kFlushLimit);

/// From now on a fault (abort, an exception that nobody catches, a bad address) leaves the process
/// kFlushLimit for what is queued. A fault's handler that is there already stays.
MO_EXPORT void FlushAtFaults();

}  // namespace QueuedOutput
