#pragma once

#include <memory>
#include <string>
#include <utility>

#include "framework/UniqueFd.h"
#include "host/data/DataEngine.h"

/// A LUN in memory, zeros at first, and left out of core dumps. A transfer ends inside Start: a
/// copy costs less than waking another thread for it.
class MemoryEngine : public DataEngine {
  public:
    /// `name`: the LUN's, for whoever looks at the process. `size` in bytes.
    /// Returns: the engine, or null with one line in `error`.
    static std::unique_ptr<MemoryEngine> Make(const std::string& name, uint64_t size,
                                              Transfers& transfers, std::string& error);
    ~MemoryEngine() override;
    MemoryEngine(const MemoryEngine&) = delete;
    MemoryEngine& operator=(const MemoryEngine&) = delete;

    const char* Name() const override { return "memory"; }
    void Start(Transfer& transfer) override;

  private:
    MemoryEngine(UniqueFd fd, char* base, uint64_t size, Transfers& transfers)
        : m_fd(std::move(fd)), m_base(base), m_size(size), m_transfers(transfers) {}

    const UniqueFd m_fd;
    char* const m_base;
    const uint64_t m_size;
    Transfers& m_transfers;
};
