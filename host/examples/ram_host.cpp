// A host that serves data of its own: a LUN in memory, until SIGINT or SIGTERM.
//
//   ram_host /usr/local/lib/moscsi/libMoScsiSrvLIO.so   (root; the wrapper first on PATH)

#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <vector>

#include "framework/QueuedOutput.h"
#include "ioctx/MoScsiSrvIO.h"
#include "platform/MoScsiSrvPlatform.h"

namespace {

/// The data operations. A transfer may end before Read or Write returns, so this one needs no
/// thread, and never has anything to abort.
class RamDisk final : public MoScsiBStorOps {
  public:
    RamDisk(MoScsiSrvPlatform& platform, size_t size) : m_platform(platform), m_bytes(size) {}

    CRyError Read(void*, MoScsiSrvIO* io, int) override { return Move(io, false); }
    CRyError Write(void*, MoScsiSrvIO* io, int) override { return Move(io, true); }
    CRyError Abort(void*, MoScsiSrvIO*) override { return {}; }

  private:
    CRyError Move(MoScsiSrvIO* io, bool write) {
        const auto offset = static_cast<size_t>(io->offset);
        const auto length = static_cast<size_t>(io->length);
        size_t done = 0;
        for (int64_t i = 0; i < io->iovcnt && offset + length <= m_bytes.size(); ++i) {
            const size_t count = std::min(io->iov[i].iov_len, length - done);
            char* ours = m_bytes.data() + offset + done;
            std::memcpy(write ? ours : io->iov[i].iov_base, write ? io->iov[i].iov_base : ours,
                        count);
            done += count;
        }
        return m_platform.IODone(io, static_cast<long>(done));  // exactly once; io is gone now
    }

    MoScsiSrvPlatform& m_platform;
    std::vector<char> m_bytes;
};

}  // namespace

int main(int, char** argv) {
    sigset_t stop;  // blocked before the plug-in's threads exist, so that they inherit it
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    void* library = dlopen(argv[1], RTLD_NOW);
    void* factory = library == nullptr ? nullptr : dlsym(library, "GetMOScsiPlatformObj");
    if (factory == nullptr)
        return 1;
    auto* platform = static_cast<MoScsiSrvPlatform*>(reinterpret_cast<void* (*)()>(factory)());

    MoScsiSrvTarget target{"iqn.2026-01.com.example:ram"};
    MoScsiSrvHost host{"iqn.2026-01.com.example:host"};
    MoScsiSrvLun lun;
    lun.lunNum = 0;
    lun.targetName = target.targetName;
    lun.path = "/ram";  // only a name here
    lun.bstorType = BSTOR_USER;
    lun.size = 64 << 20;
    RamDisk disk(*platform, lun.size);
    lun.bstoreOps = &disk;
    lun.bstoreCtx = &disk;  // handed back to each operation; must not be null
    const bool served =
        !platform->Initialize().IsError() && !platform->CreateTarget(&target).IsError() &&
        !platform->CreateLun(&lun).IsError() && !platform->MapHost(&lun, &host).IsError();
    int signal = 0;
    if (served)
        sigwait(&stop, &signal);
    platform->UnMapHost(&lun, &host);
    platform->DeleteLun(&lun);  // returns when the device has closed: the disk may go then
    platform->DeleteTarget(&target);
    platform->Cleanup();
    QueuedOutput::Flush();  // what the log has
    _exit(served ? 0 : 1);  // the plug-in's threads aren't joined
}
