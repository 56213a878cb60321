#include "host/service/LunRecord.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <sstream>

#include "framework/SmallFile.h"
#include "host/plan/Identity.h"

namespace {

constexpr char kHead[] =
    "# LUNs that moscsi-host made or served: identifier, target, path, last number\n";

std::pair<std::string, std::string> KeyOf(const LunPlan& lun) {
    return {lun.target, lun.config.path};
}

bool WriteAll(int descriptor, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = write(descriptor, text.data() + done, text.size() - done);
        if (written < 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

std::string LunRecord::Read() {
    m_entries.clear();
    const std::optional<std::string> text = ReadSmallFile(File());
    if (!text)
        return errno == ENOENT ? ""
                               : fmt::format("can't read {} ({}): make it readable",
                                             File().string(), strerror(errno));
    std::istringstream lines(*text);
    unsigned count = 0;
    for (std::string line; std::getline(lines, line);) {
        ++count;
        if (line.empty() || line.starts_with('#'))
            continue;
        std::istringstream words(line);
        std::pair<std::string, std::string> key;
        Entry entry;
        std::string number;
        words >> entry.naa >> key.first >> key.second >> number;
        if (number.empty() || number.size() > 3 ||
            (number != "-" && number.find_first_not_of("0123456789") != std::string::npos))
            return fmt::format(
                "{}:{}: is no line of \"identifier target path number\": mend it, or the LUNs that "
                "were made here aren't known",
                File().string(), count);
        if (number != "-")
            entry.number = static_cast<uint32_t>(std::stoul(number));
        m_entries[key] = entry;
    }
    return {};
}

bool LunRecord::Knows(const LunPlan& lun) const {
    const std::string naa = NaaDigitsOf(lun.serial);
    for (const auto& [key, entry] : m_entries)
        if (key == KeyOf(lun) || entry.naa == naa)
            return true;
    return false;
}

std::optional<uint32_t> LunRecord::NumberOf(const LunPlan& lun) const {
    const auto found = m_entries.find(KeyOf(lun));
    return found == m_entries.end() ? std::nullopt : found->second.number;
}

/// The directory, locked against other processes, and the record as it is now.
std::string LunRecord::Begin(UniqueFd& lock) {
    std::error_code ignored;
    if (std::filesystem::create_directories(m_directory, ignored))
        chmod(m_directory.c_str(), 0755);
    lock = UniqueFd(open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!lock.Valid() || flock(lock.Get(), LOCK_EX) != 0)
        return fmt::format("can't open {} ({}): make it a directory that root can write",
                           m_directory.string(), strerror(errno));
    return Read();
}

std::string LunRecord::Write(const Entries& entries, const UniqueFd& directory) {
    std::string text = kHead;
    for (const auto& [key, entry] : entries)
        text += fmt::format("{} {} {} {}\n", entry.naa, key.first, key.second,
                            entry.number ? std::to_string(*entry.number) : "-");
    std::string draft = (m_directory / ".luns-XXXXXX").string();
    const UniqueFd file(mkostemp(draft.data(), O_CLOEXEC));
    const bool written = file.Valid() && WriteAll(file.Get(), text) &&
                         fchmod(file.Get(), 0644) == 0 && fsync(file.Get()) == 0 &&
                         rename(draft.c_str(), File().c_str()) == 0 && fsync(directory.Get()) == 0;
    if (!written) {
        const int failure = errno;
        if (file.Valid())
            unlink(draft.c_str());
        return fmt::format(
            "can't write {} ({}), which keeps what was made here: make room, or make it writable",
            File().string(), strerror(failure));
    }
    m_entries = entries;
    return {};
}

std::string LunRecord::Note(const std::vector<Noted>& luns) {
    UniqueFd lock;
    if (std::string fault = Begin(lock); !fault.empty())
        return fault;
    Entries entries = m_entries;
    for (const auto& [lun, number] : luns) {
        Entry& entry = entries[KeyOf(*lun)];
        entry.naa = NaaDigitsOf(lun->serial);
        if (number)
            entry.number = number;
    }
    return entries == m_entries ? "" : Write(entries, lock);
}

std::string LunRecord::Forget(const std::vector<const LunPlan*>& luns) {
    UniqueFd lock;
    if (std::string fault = Begin(lock); !fault.empty())
        return fault;
    Entries entries = m_entries;
    for (const LunPlan* lun : luns)
        entries.erase(KeyOf(*lun));
    return entries == m_entries ? "" : Write(entries, lock);
}
