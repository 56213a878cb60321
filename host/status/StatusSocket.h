#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include "framework/UniqueFd.h"

/// The local socket over which a running host tells its status: whoever connects is sent one JSON
/// text, and the connection ends.

/// Answers on a thread of its own, so that the host answers whatever else it waits for; also when
/// the process has no descriptor left.
class StatusServer {
  public:
    /// Called for each connection, on the server's thread. What it throws is answered as
    /// {"error": text}.
    using Answer = std::function<std::string()>;

    StatusServer(std::filesystem::path socket, Answer answer);

    ~StatusServer();
    StatusServer(const StatusServer&) = delete;
    StatusServer& operator=(const StatusServer&) = delete;

    /// Begins to listen; root only may connect. A socket that a killed host left is replaced.
    /// Requires: this process is the machine's one host.
    /// Returns: empty, or one line that says what is wrong.
    std::string Start();

    /// Ends the thread and removes the socket. May be called again.
    void Stop();

  private:
    void Run();
    bool AnswerOne();

    const std::filesystem::path m_path;
    const Answer m_answer;
    UniqueFd m_wake;
    UniqueFd m_listener;
    UniqueFd m_spare;  ///< given up for a connection when there is no descriptor left
    std::thread m_thread;
};

/// Asks the running host. Returns: its answer, or nothing and one line in `error`.
std::string AskStatus(const std::filesystem::path& socket, std::string& error);
