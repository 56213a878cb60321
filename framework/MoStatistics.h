#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "framework/Export.h"

/// The process's counters, for whoever shows them: the plug-in's layers register sources, the host
/// reads them all. The plug-in exports one symbol only, so this meeting point is the framework's.
///
/// Thread: any.
class MO_EXPORT MoStatistics {
  public:
    using Counters = std::vector<std::pair<std::string, uint64_t>>;

    /// Returns the source's counters by name, in the order in which they are to be shown. Called on
    /// the reader's thread, one call at a time; must not block and not register or read itself.
    using Source = std::function<Counters()>;

    /// Keeps a source registered. Its destruction waits for a call in progress; afterwards the
    /// source is never called again.
    class MO_EXPORT Registration {
      public:
        explicit Registration(uint64_t key) : m_key(key) {}
        ~Registration();
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

      private:
        uint64_t m_key;
    };

    /// Registers a source under a name; names needn't be unique.
    [[nodiscard]] static std::unique_ptr<Registration> Register(std::string name, Source source);

    /// Reads every source, in order of registration.
    static std::vector<std::pair<std::string, Counters>> Read();
};
