#pragma once

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

/// The real targetcli is to carry the command out; nothing was changed. What it says is why.
struct SlowRoad : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// The kernel refused a step, and either what was done before it couldn't be taken back, so that
/// the real targetcli would meet a half-made state, or trying again by its means would only wait
/// for the same refusal. What it says is the one line to report.
struct StoppedHalfWay : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Throws SlowRoad unless `certain`.
void Require(bool certain, const char* otherwise);

/// The changes that one command makes in configfs, in order. A step that the kernel refuses takes
/// back what was made before it, reads that back, and throws: SlowRoad when nothing is left of it,
/// StoppedHalfWay otherwise.
///
/// Threads: used by one thread. Everything here may wait in the kernel, without limit.
class ConfigfsChange {
  public:
    using Path = std::filesystem::path;

    void MakeDirectory(const Path& path);
    /// A link in `directory` to `to`, under a name that says nothing: ten random digits.
    void MakeLink(const Path& to, const Path& directory);
    void Write(const Path& file, const std::string& text);
    /// The same, but a refusal is the command's answer: it throws StoppedHalfWay also when nothing
    /// is left. For what asks somebody else than the kernel, who has answered then.
    void WriteAsking(const Path& file, const std::string& text);
    /// Removes a link or an empty directory.
    void Remove(const Path& path);

    /// Whether this process has begun to change anything.
    static bool AnyBegun() { return s_begun; }

  private:
    bool TryWrite(const Path& file, const std::string& text);
    [[noreturn]] void Refused(const char* step, const Path& path, int error, bool final = false);
    bool TakeBack();

    static bool s_begun;

    std::vector<Path> m_made;  // in order; a link is told from a directory by removing it
    bool m_lasting = false;    // something was changed that can't be taken back
};

/// Names in `directory`, sorted; empty when it isn't there.
std::vector<std::string> DirectoriesIn(const std::filesystem::path& directory);
std::vector<std::string> LinksIn(const std::filesystem::path& directory);

/// Where the one link in `directory` leads, as an absolute path without detours; empty when there
/// is none, more than one, or one that leads nowhere.
std::filesystem::path OnlyLinkIn(const std::filesystem::path& directory);
