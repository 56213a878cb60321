#include "host/service/ClosedTargets.h"

#include <fmt/format.h>

#include <cstring>
#include <fstream>
#include <utility>

#include "framework/SmallFile.h"

ClosedTargets::ClosedTargets(const std::filesystem::path& runDirectory,
                             std::filesystem::path configfs)
    : m_notes(runDirectory / "closed"),
      m_configfs(std::move(configfs)),
      m_boot(FirstLineOf("/proc/sys/kernel/random/boot_id")) {}

std::string ClosedTargets::Note(const std::string& target) {
    std::error_code failure;
    std::filesystem::create_directories(m_notes, failure);
    // Torn by a crash of this process it names no boot, and is none.
    std::ofstream note(NoteOf(target));
    note << m_boot << '\n';
    note.close();
    return note ? ""
                : fmt::format("{} can't be written: make room there, or see its permissions",
                              NoteOf(target).string());
}

bool ClosedTargets::Noted(const std::string& target) const {
    return !m_boot.empty() && FirstLineOf(NoteOf(target)) == m_boot;
}

std::string ClosedTargets::Open(const std::string& target) {
    const std::filesystem::path enable = m_configfs / "iscsi" / target / "tpgt_1/enable";
    int error = 0;
    if (FirstLineOf(enable) != "1")
        error = WriteSmallFile(enable, "1");
    if (FirstLineOf(enable) != "1")
        return fmt::format("target {} can't be opened: {} says {}", target, enable.string(),
                           error != 0 ? strerror(error) : "it is closed still");
    Forget(target);
    return {};
}

void ClosedTargets::Forget(const std::string& target) {
    std::error_code ignored;
    std::filesystem::remove(NoteOf(target), ignored);
}
