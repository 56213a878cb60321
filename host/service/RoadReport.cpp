#include "host/service/RoadReport.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace {

constexpr const char* kFast = "fast";
constexpr const char* kSlow = "slow";
constexpr const char* kLost = "lost";
constexpr size_t kMostReasons = 3;

}  // namespace

RoadReport::RoadReport(const std::filesystem::path& runDirectory)
    : m_file(runDirectory / "targetcli/roads"), m_roads{{kFast, 0}, {kSlow, 0}, {kLost, 0}} {
    struct stat status = {};
    if (stat(m_file.c_str(), &status) == 0) {
        m_inode = status.st_ino;
        m_offset = status.st_size;
    }
    m_told = m_roads;
}

// A file that was begun anew meanwhile is read from its start.
void RoadReport::Read() {
    struct stat status = {};
    if (stat(m_file.c_str(), &status) != 0)
        return;
    if (status.st_ino != m_inode || status.st_size < m_offset)
        m_offset = 0;
    m_inode = status.st_ino;
    std::ifstream file(m_file);
    file.seekg(m_offset);
    for (std::string line; std::getline(file, line) && !file.eof();) {
        m_offset += static_cast<off_t>(line.size()) + 1;
        std::istringstream words(line);
        std::string time;
        std::string road;
        std::string what;
        words >> time >> road;
        std::getline(words >> std::ws, what);
        if (!m_roads.contains(road))
            continue;
        ++m_roads[road];
        if (road != kFast)
            ++m_reasons[what];
    }
}

std::string RoadReport::News() {
    const MutexGuard guard(m_mutex);
    Read();
    if (m_roads == m_told)
        return {};
    std::string line = fmt::format("targetcli's commands: {} carried out in configfs, {} by it",
                                   Fresh(kFast), Fresh(kSlow));
    if (Fresh(kLost) > 0)
        line += fmt::format(", {} lost", Fresh(kLost));
    size_t told = 0;
    for (const auto& [reason, count] : m_reasons)
        if (told++ < kMostReasons)
            line += fmt::format("{}{} ({})", told == 1 ? ": " : "; ", reason, count);
    m_told = m_roads;
    m_reasons.clear();
    return line;
}

MoStatistics::Counters RoadReport::Counters() {
    const MutexGuard guard(m_mutex);
    Read();
    return {m_roads.begin(), m_roads.end()};
}
