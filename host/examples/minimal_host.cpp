// The smallest host: serves one file to one initiator until the process is killed. What it makes
// stays in the kernel; moscsi-host shows how to compare, map, stop and take down.
//
//   minimal_host /usr/local/lib/moscsi/libMoScsiSrvLIO.so   (root; the wrapper first on PATH)

#include <dlfcn.h>
#include <unistd.h>

#include "platform/MoScsiSrvPlatform.h"

int main(int, char** argv) {
    void* library = dlopen(argv[1], RTLD_NOW);
    void* factory = library == nullptr ? nullptr : dlsym(library, "GetMOScsiPlatformObj");
    if (factory == nullptr)
        return 1;
    auto* platform = static_cast<MoScsiSrvPlatform*>(reinterpret_cast<void* (*)()>(factory)());

    MoScsiSrvTarget target{"iqn.2026-01.com.example:minimal"};
    MoScsiSrvHost host{"iqn.2026-01.com.example:host"};
    MoScsiSrvLun lun;
    lun.lunNum = 0;
    lun.targetName = target.targetName;
    lun.path = "/var/tmp/minimal.img";
    lun.bstorType = BSTOR_FILE;
    lun.size = 64 << 20;
    if (platform->Initialize().IsError() || platform->CreateTarget(&target).IsError() ||
        platform->CreateLun(&lun).IsError() || platform->MapHost(&lun, &host).IsError())
        return 1;
    pause();
}
