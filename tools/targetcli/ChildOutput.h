#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "framework/UniqueFd.h"

/// One output stream of a child: a pipe whose content is relayed to a descriptor of the wrapper's
/// while it comes, or kept for a later look. Memory is bounded either way: a relayed stream is read
/// only as fast as its reader takes it, of a kept one the first 64 KiB count and the rest is read
/// and dropped.
///
/// A reader that has gone away (the plug-in closes its pipe after one line) is no error: what is
/// still to come is read and dropped, so that the child ends in its own way and not by SIGPIPE.
///
/// Threads: used by one thread. Nothing blocks: the caller polls both ends.
/// Requires: SIGPIPE is ignored.
class ChildOutput {
  public:
    static constexpr size_t kCapacity = 65536;

    /// A stream that is kept.
    ChildOutput() = default;
    /// A stream that is relayed to `readerFd`, which stays the caller's.
    explicit ChildOutput(int readerFd) : m_readerFd(readerFd) {}

    /// Makes the pipe. Returns: 0 or errno.
    int Open();
    /// The end that the child writes to; the caller's own copy is closed once the child has it.
    int ChildFd() const { return m_child.Get(); }
    void CloseChildFd() { m_child.Close(); }

    /// What to poll for now, -1 for nothing: the pipe for input, the reader for room.
    int SourceFd() const { return HasRoom() ? m_pipe.Get() : -1; }
    int SinkFd() const { return m_readerFd >= 0 && !m_held.empty() ? m_readerFd : -1; }

    /// Takes what has come. `childEnded`: all that can come is in the pipe already, so that an
    /// empty pipe is its end, whoever else has it open.
    void TakeInput(bool childEnded);
    /// Gives the reader what it has room for. Requires: the reader polled writable or broken.
    void GiveOutput();

    /// The pipe is at its end and the reader has everything.
    bool Done() const { return !m_pipe.Valid() && (m_readerFd < 0 || m_held.empty()); }

    /// What was kept; empty for a stream that is relayed.
    const std::string& Kept() const { return m_held; }
    /// Something else than white space came.
    bool SaidSomething() const { return !LastLine().empty(); }
    /// The last line that isn't blank, without white space at its ends, of at most 4,095 bytes.
    std::string_view LastLine() const;

  private:
    bool HasRoom() const;
    void Note(std::string_view input);
    void NoteLineEnd();

    int m_readerFd = -1;  // -1: kept
    UniqueFd m_pipe;
    UniqueFd m_child;
    std::string m_held;  // relayed: not yet given to the reader; kept: everything
    std::string m_line;  // the line that is coming
    std::string m_lastLine;
};
