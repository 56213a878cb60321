#include "framework/MoStatistics.h"

#include <map>

#include "framework/Mutex.h"

namespace {

struct Registry {
    Mutex mutex;
    uint64_t nextKey MO_GUARDED_BY(mutex) = 1;
    std::map<uint64_t, std::pair<std::string, MoStatistics::Source>> sources MO_GUARDED_BY(mutex);
};

/// Never destroyed: device threads may outlive main.
Registry& TheRegistry() {
    static auto* registry = new Registry;
    return *registry;
}

}  // namespace

std::unique_ptr<MoStatistics::Registration> MoStatistics::Register(std::string name,
                                                                   Source source) {
    Registry& registry = TheRegistry();
    const MutexGuard guard(registry.mutex);
    const uint64_t key = registry.nextKey++;
    registry.sources.emplace(key, std::pair(std::move(name), std::move(source)));
    return std::make_unique<Registration>(key);
}

MoStatistics::Registration::~Registration() {
    Registry& registry = TheRegistry();
    const MutexGuard guard(registry.mutex);
    registry.sources.erase(m_key);
}

std::vector<std::pair<std::string, MoStatistics::Counters>> MoStatistics::Read() {
    Registry& registry = TheRegistry();
    const MutexGuard guard(registry.mutex);
    std::vector<std::pair<std::string, Counters>> all;
    for (const auto& [key, source] : registry.sources)
        all.emplace_back(source.first, source.second());
    return all;
}
