// Drives the ten operations one at a time, from lines on standard input, for people and scenarios
// that want to stop between two of them. Prints "ok" (a create: "ok NUMBER SERIAL") or "error CODE
// TEXT" a line.
//
//   init | cleanup
//   create-target TARGET | delete-target TARGET
//   create-lun KIND NUMBER|auto TARGET PATH BYTES     KIND: file, block, memory, served
//   delete-lun KIND NUMBER TARGET PATH
//   map NUMBER TARGET INITIATOR | unmap NUMBER TARGET INITIATOR

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <sstream>

#include "framework/LogWriters.h"
#include "framework/QueuedOutput.h"
#include "host/data/LunData.h"
#include "host/service/Plugin.h"
#include "host/service/StopSignals.h"

namespace {

constexpr char kLibrary[] = "/usr/local/lib/moscsi/libMoScsiSrvLIO.so";

class Shell {
  public:
    explicit Shell(MoScsiSrvPlatform& platform) : m_platform(platform) {}

    std::string Run(const std::string& line) {
        std::istringstream words(line);
        std::string verb;
        words >> verb;
        if (verb == "init")
            return Told(m_platform.Initialize());
        if (verb == "cleanup")
            return Told(m_platform.Cleanup());
        if (verb == "create-target" || verb == "delete-target") {
            MoScsiSrvTarget target;
            words >> target.targetName;
            return Told(verb == "create-target" ? m_platform.CreateTarget(&target)
                                                : m_platform.DeleteTarget(&target));
        }
        if (verb == "create-lun")
            return CreateLun(words);
        if (verb == "delete-lun") {
            MoScsiSrvLun lun = Lun(words);
            return Told(m_platform.DeleteLun(&lun));
        }
        MoScsiSrvLun lun;
        MoScsiSrvHost host;
        words >> lun.lunNum >> lun.targetName >> host.initiatorName;
        return Told(verb == "map" ? m_platform.MapHost(&lun, &host)
                                  : m_platform.UnMapHost(&lun, &host));
    }

  private:
    struct Kind {
        uint32_t type;
        Backing backing = {};  ///< of BSTOR_USER
    };

    static const std::map<std::string, Kind>& Kinds() {
        static const std::map<std::string, Kind> kinds{{"file", {BSTOR_FILE}},
                                                       {"block", {BSTOR_BLKDEV}},
                                                       {"memory", {BSTOR_USER, Backing::Memory}},
                                                       {"served", {BSTOR_USER, Backing::File}}};
        return kinds;
    }

    static std::string Told(const CRyError& error) {
        if (!error.IsError())
            return "ok";
        std::string told = "error " + std::to_string(error.Number()) + " " + error.Message();
        std::replace(told.begin(), told.end(), '\n', ' ');  // an answer is one line
        return told;
    }

    static MoScsiSrvLun Lun(std::istringstream& words) {
        MoScsiSrvLun lun;
        std::string kind;
        std::string number;
        words >> kind >> number >> lun.targetName >> lun.path;
        lun.bstorType = Kinds().at(kind).type;
        lun.lunNum =
            number == "auto" ? kAutomaticLunNumber : static_cast<uint32_t>(std::stoul(number));
        lun.serialNum = "shell";
        lun.hostString = kind;
        return lun;
    }

    std::string CreateLun(std::istringstream& words) {
        MoScsiSrvLun lun = Lun(words);
        words >> lun.size;
        if (lun.bstorType == BSTOR_USER) {
            auto& data = m_data[lun.targetName + lun.path];
            if (data == nullptr) {
                LunDataConfig config;
                config.name = lun.path;
                config.backing = Kinds().at(lun.hostString).backing;
                config.path = lun.path;
                config.sizeBytes = lun.size;
                auto made = MakeLunData(config, m_platform);
                if (made.data == nullptr)
                    return "error 0 " + made.error;
                data = std::move(made.data);
            }
            lun.bstoreOps = data.get();
            lun.bstoreCtx = data->Context();
        }
        const std::string told = Told(m_platform.CreateLun(&lun));
        return told == "ok" ? "ok " + std::to_string(lun.lunNum) + " " + lun.serialNum : told;
    }

    MoScsiSrvPlatform& m_platform;
    std::map<std::string, std::unique_ptr<LunData>> m_data;
};

}  // namespace

int main() {
    StopSignals::Block();
    g_ptrLogWriter = MakeStderrLogWriter(1);
    std::string error;
    MoScsiSrvPlatform* platform = LoadPlugin(kLibrary, error);
    if (platform == nullptr) {
        std::cerr << error << std::endl;
        return 1;
    }
    auto* shell = new Shell(*platform);  // its data must outlive whatever the kernel still asks for
    for (std::string line; std::getline(std::cin, line);)
        std::cout << shell->Run(line) << std::endl;
    QueuedOutput::Flush();
    _exit(0);  // the plug-in's threads aren't joined
}
