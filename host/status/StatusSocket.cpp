#include "host/status/StatusSocket.h"

#include <fmt/format.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <nlohmann/json.hpp>
#include <system_error>

#include "framework/ExceptionOf.h"

namespace {

constexpr int kPause = 100;                              // milliseconds
constexpr timeval kPatience{.tv_sec = 5, .tv_usec = 0};  // with a peer that doesn't read, or answer

bool AddressOf(const std::filesystem::path& path, sockaddr_un& address) {
    address = {};
    address.sun_family = AF_UNIX;
    if (path.native().size() >= sizeof address.sun_path)
        return false;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    return true;
}

const sockaddr* Generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

void SendAll(int connection, const std::string& text) {
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    for (size_t sent = 0; sent < text.size();) {
        const ssize_t count =
            send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (count <= 0)
            return;  // the peer went away, or doesn't read: its loss
        sent += static_cast<size_t>(count);
    }
}

std::string ErrorText(const std::string& what) {
    return nlohmann::json{{"error", what}}.dump(-1, ' ', false,
                                                nlohmann::json::error_handler_t::replace);
}

}  // namespace

StatusServer::StatusServer(std::filesystem::path socket, Answer answer)
    : m_path(std::move(socket)), m_answer(std::move(answer)) {}

void StatusServer::Stop() {
    if (!m_thread.joinable())
        return;
    unlink(m_path.c_str());
    eventfd_write(m_wake.Get(), 1);
    m_thread.join();
}

StatusServer::~StatusServer() {
    Stop();
}

std::string StatusServer::Start() {
    sockaddr_un address{};
    if (!AddressOf(m_path, address))
        return fmt::format("the socket's path {} is too long: use a shorter MOSCSI_RUN_DIR",
                           m_path.string());
    m_wake = UniqueFd(eventfd(0, EFD_CLOEXEC));
    m_listener = UniqueFd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    unlink(m_path.c_str());
    const mode_t before = umask(0077);
    const bool good = m_wake.Valid() && m_listener.Valid() &&
                      bind(m_listener.Get(), Generic(address), sizeof address) == 0 &&
                      listen(m_listener.Get(), 16) == 0;
    const int error = errno;
    umask(before);
    if (!good)
        return fmt::format("can't listen on {} ({}): see whether the directory is writable",
                           m_path.string(), strerror(error));
    m_spare = UniqueFd(eventfd(0, EFD_CLOEXEC));
    try {
        m_thread = std::thread([this] {
            while (ExceptionOf([this] { Run(); }))
                poll(nullptr, 0, kPause);  // no memory for so much as an error's text
        });
    } catch (const std::system_error& error) {
        return fmt::format("no thread for the status ({}): raise the limit of processes",
                           error.what());
    }
    return {};
}

void StatusServer::Run() {
    for (;;) {
        std::array<pollfd, 2> waits{{{m_listener.Get(), POLLIN, 0}, {m_wake.Get(), POLLIN, 0}}};
        if (poll(waits.data(), waits.size(), -1) < 0)
            continue;
        if (waits[1].revents != 0)
            return;
        if (!AnswerOne()) {
            // A connection that can't be taken stays, and would wake this thread again at once.
            poll(&waits[1], 1, kPause);
        }
    }
}

bool StatusServer::AnswerOne() {
    const auto accept = [this] {
        return UniqueFd(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    };
    UniqueFd connection = accept();
    if (!connection.Valid() && m_spare.Valid()) {
        m_spare.Close();
        connection = accept();
    }
    if (connection.Valid()) {
        std::string text;
        if (const auto fault = ExceptionOf([&] { text = m_answer(); }))
            text = ErrorText(*fault);
        SendAll(connection.Get(), text);
    }
    const bool answered = connection.Valid();
    connection.Close();
    if (!m_spare.Valid())
        m_spare = UniqueFd(eventfd(0, EFD_CLOEXEC));
    return answered;
}

std::string AskStatus(const std::filesystem::path& socket, std::string& error) {
    sockaddr_un address{};
    const UniqueFd connection(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    setsockopt(connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    std::string text;
    if (!AddressOf(socket, address) ||
        connect(connection.Get(), Generic(address), sizeof address) != 0) {
        error = errno == EACCES
                    ? fmt::format("{} is for root only: run this as root", socket.string())
                    : fmt::format(
                          "no moscsi-host is running ({}: {}): start one with moscsi-host "
                          "serve FILE",
                          socket.string(), strerror(errno));
    } else {
        std::array<char, 4096> buffer{};
        ssize_t count = 0;
        while ((count = read(connection.Get(), buffer.data(), buffer.size())) > 0)
            text.append(buffer.data(), static_cast<size_t>(count));
        if (count < 0 || text.empty()) {
            text.clear();
            error = fmt::format("the running moscsi-host doesn't answer on {}", socket.string());
        }
    }
    return text;
}
