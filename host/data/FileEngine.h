#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host/data/BackingFile.h"
#include "host/data/DataEngine.h"
#include "host/data/FileQueue.h"

namespace moscsi::data {

/// A LUN in a file. Resumes what the kernel did in part, ends at the file's end with the bytes that
/// were, and keeps the queue within its depth.
class FileEngine : public DataEngine {
  public:
    /// `durable`: a write is on stable storage when it ends (RWF_DSYNC), since the LUN says that it
    /// has no write cache (SBC-3, 6.4.5: WCE zero).
    /// Returns: the engine, or null with the queue maker's reason in `error`; the file is taken
    /// only on success.
    static std::unique_ptr<FileEngine> Make(BackingFile& file, bool durable, Transfers& transfers,
                                            const FileQueueMaker& makeQueue, std::string& error);

    const char* Name() const override { return m_queue->Name(); }
    void Start(Transfer& transfer) override MO_EXCLUDES(m_mutex);
    void CancelAborted() override MO_EXCLUDES(m_mutex);
    void Stop() override { m_queue->Stop(); }

  private:
    FileEngine(bool durable, Transfers& transfers);

    void Submit(const Transfer& transfer);
    void OnEnded(Ticket ticket, int64_t result) MO_EXCLUDES(m_mutex);
    void End(Transfer& transfer, int64_t result) MO_EXCLUDES(m_mutex);

    const int m_writeFlags;
    Transfers& m_transfers;

    Mutex m_mutex;
    size_t m_running MO_GUARDED_BY(m_mutex) = 0;
    std::deque<Transfer*> m_waiting MO_GUARDED_BY(m_mutex);  ///< beyond the queue's depth

    BackingFile m_file;
    std::unique_ptr<FileQueue> m_queue;  ///< last: its threads use everything above
};

}  // namespace moscsi::data
