// The plug-in's device handler, as the runner uses it.

#include <cstdio>
#include <string>

#include "runner/DeviceHandler.h"
#include "tcmu/MoScsiSrvTcmuDev.h"

namespace {

using Stats = MoScsiSrvTcmuDev::Stats;

std::string OpcodeName(size_t opcode) {
    char name[16];
    snprintf(name, sizeof name, "opcode 0x%02zX", opcode);
    return name;
}

class PluginHandler : public DeviceHandler {
  public:
    explicit PluginHandler(tcmu_device* device) : m_device(device) {}

    int Open() override { return m_device.TcmuDevOpen(); }
    int Handle(tcmulib_cmd* cmd) override { return m_device.TcmuDevCmdHandler(cmd); }
    void Close() override { m_device.TcmuDevClose(); }
    MoStatistics::Counters Counters() override;

  private:
    MoScsiSrvTcmuDev m_device;
};

MoStatistics::Counters PluginHandler::Counters() {
    const Stats& stats = m_device.GetStats();
    MoStatistics::Counters counters = {
        {"opens", stats.opens},
        {"open errors", stats.openErrors},
        {"closes", stats.closes},
        {"close errors", stats.closeErrors},
        {"aborted at close", stats.abortedAtClose},
        {"waits at close", stats.waitsAtClose},
        {"not ready", stats.commands[Stats::kNotReady]},
        {"not handled", stats.commands[Stats::kCommandsNotHandled]},
        {"illegal requests", stats.commands[Stats::kIllegalRequests]},
        {"I/Os done", stats.commands[Stats::kIosDone]},
        {"I/Os failed", stats.commands[Stats::kIosFailed]},
        {"unknown completions", stats.commands[Stats::kUnknownCompletions]},
        {"medium errors", stats.commands[Stats::kMediumErrors]},
        {"pending", m_device.Pending()},
    };
    for (size_t opcode = 0; opcode < Stats::kOpcodes; ++opcode)
        if (stats.commands[opcode] != 0)
            counters.emplace_back(OpcodeName(opcode), stats.commands[opcode]);
    return counters;
}

}  // namespace

std::unique_ptr<DeviceHandler> MakePluginHandler(tcmu_device* device) {
    return std::make_unique<PluginHandler>(device);
}
