#pragma once

#include <stdlib.h>

#include <fstream>
#include <string>
#include <vector>

/// Puts the script fake/targetcli first on PATH as `targetcli`, for this process and what it
/// starts, with a directory for its answers and for what it was asked.
class FakeTargetcli {
  public:
    static const char* const kProgramDirectory;  ///< where nothing else is

    explicit FakeTargetcli(std::string directory) : m_directory(std::move(directory)) {
        static const std::string path = getenv("PATH");
        setenv("PATH", (kProgramDirectory + (":" + path)).c_str(), 1);
        setenv("FAKE_TARGETCLI", m_directory.c_str(), 1);
    }

    /// What the run with exactly these arguments prints on standard error, and elsewhere. Line
    /// feeds in the texts as in C. Without an answer it prints nothing and succeeds.
    void Answer(const std::string& arguments, const std::string& err, const std::string& out = "",
                int status = 1) const {
        std::ofstream(m_directory + "/answers", std::ios::app)
            << arguments << '|' << status << '|' << out << '|' << err << '\n';
    }

    /// Forgets all answers and calls.
    void Reset() const {
        remove((m_directory + "/answers").c_str());
        remove((m_directory + "/calls").c_str());
    }

    /// "begin ARGUMENTS" and "end ARGUMENTS" of every run, in order.
    std::vector<std::string> Calls() const {
        std::ifstream file(m_directory + "/calls");
        std::vector<std::string> calls;
        for (std::string line; std::getline(file, line);)
            calls.push_back(line);
        return calls;
    }

  private:
    std::string m_directory;
};
