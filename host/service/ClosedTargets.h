#pragma once

#include <filesystem>
#include <string>

/// Targets that this host makes closed and opens last. An initiator that logs in while LUNs are
/// still being mapped sees none of the later ones until it rescans; a login at a closed portal
/// group waits in the initiator, and goes through with all LUNs when the group opens.
///
/// Before a target is made, a note says that its being closed is ours: a file below `runDirectory`
/// that names the boot. A host that is killed in between leaves target and note, and the next one
/// goes on and opens it; a closed target without a note is somebody else's decision.
///
/// Thread: one.
class ClosedTargets {
  public:
    ClosedTargets(const std::filesystem::path& runDirectory, std::filesystem::path configfs);

    /// Notes a target that is about to be made. Returns: empty, or one line.
    std::string Note(const std::string& target);

    /// Whether the target was noted since the machine was booted.
    bool Noted(const std::string& target) const;

    /// Opens the target's portal group, reads that back, and takes the note away.
    /// Returns: empty, or one line; the note stays then.
    std::string Open(const std::string& target);

    /// Takes the note away: the target is gone.
    void Forget(const std::string& target);

  private:
    std::filesystem::path NoteOf(const std::string& target) const { return m_notes / target; }

    const std::filesystem::path m_notes;
    const std::filesystem::path m_configfs;
    const std::string m_boot;
};
