#include "tools/targetcli/ChildOutput.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>

namespace {

constexpr size_t kLongestLine = 4095;

std::string_view Trimmed(std::string_view text) {
    constexpr std::string_view kBlank = " \t\r\n\v\f";
    const size_t begin = text.find_first_not_of(kBlank);
    if (begin == std::string_view::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(kBlank) + 1 - begin);
}

}  // namespace

int ChildOutput::Open() {
    if (const int error = MakePipe(m_pipe, m_child); error != 0)
        return error;
    return fcntl(m_pipe.Get(), F_SETFL, O_NONBLOCK) == 0 ? 0 : errno;
}

bool ChildOutput::HasRoom() const {
    return m_readerFd < 0 || m_held.size() < kCapacity;
}

void ChildOutput::TakeInput(bool childEnded) {
    std::array<char, 16384> buffer;
    while (m_pipe.Valid() && HasRoom()) {
        const ssize_t count = read(m_pipe.Get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno == EAGAIN && !childEnded)
            return;
        if (count <= 0) {
            NoteLineEnd();
            m_pipe.Close();
            return;
        }
        const std::string_view input(buffer.data(), static_cast<size_t>(count));
        Note(input);
        if (m_readerFd >= 0)
            m_held += input;
        else
            m_held += input.substr(0, kCapacity - m_held.size());
        if (!childEnded)
            return;  // the other stream and the limits have their turn
    }
}

void ChildOutput::GiveOutput() {
    // As much as a pipe takes without blocking once it polls writable: the reader's descriptor is
    // shared with others and can't be made non-blocking here.
    const size_t size = std::min<size_t>(m_held.size(), PIPE_BUF);
    const ssize_t count = write(m_readerFd, m_held.data(), size);
    if (count > 0)
        m_held.erase(0, static_cast<size_t>(count));
    else if (count < 0 && errno != EINTR && errno != EAGAIN)
        m_held.clear();  // nobody reads; the same happens to what is still to come
}

std::string_view ChildOutput::LastLine() const {
    return m_lastLine;
}

void ChildOutput::Note(std::string_view input) {
    while (!input.empty()) {
        const size_t end = input.find('\n');
        const std::string_view part = input.substr(0, end);
        m_line += part.substr(0, kLongestLine - m_line.size());
        if (end == std::string_view::npos)
            return;
        NoteLineEnd();
        input.remove_prefix(end + 1);
    }
}

void ChildOutput::NoteLineEnd() {
    const std::string_view line = Trimmed(m_line);
    if (!line.empty())
        m_lastLine = line;
    m_line.clear();
}
