// The floor of a user backstore: takes each READ and WRITE from the ring and answers it at once,
// GOOD and without a byte moved. What a LUN costs beyond this is the product's; what this costs
// beyond the kernel's own ramdisk is the kernel's half.
//
// Serves every user backstore of the sub-type "empty" until SIGTERM; prints "ready". Only one
// process of a machine may talk to the kernel about user backstores, so moscsi-host mustn't run
// beside it.

#include <poll.h>

#include <csignal>
#include <cstdio>
#include <map>
#include <memory>

#include "libtcmu/Device.h"
#include "runner/DataCommand.h"
#include "runner/MasterThread.h"
#include "runner/ServiceThread.h"

namespace {

int Answer(tcmu_device& device, RingCommand& command) {
    if (DecodeDataCommand(command.cdb))
        return TCMU_STATUS_GOOD;
    uint8_t* const cdb = command.cdb;
    uint8_t* const sense = command.sense_buf;
    switch (cdb[0]) {
        case 0x00:
            return tcmu_emulate_test_unit_ready(cdb, command.iovec, command.iov_cnt, sense);
        case 0x12:
            return tcmu_emulate_inquiry(&device, cdb, command.iovec, command.iov_cnt, sense);
        case 0x1A:
        case 0x5A:
            return tcmu_emulate_mode_sense(cdb, command.iovec, command.iov_cnt, sense);
        case 0x25:
            return tcmu_emulate_read_capacity_10(device.numLbas, device.blockSize, cdb,
                                                 command.iovec, command.iov_cnt, sense);
        case 0x9E:
            return tcmu_emulate_read_capacity_16(device.numLbas, device.blockSize, cdb,
                                                 command.iovec, command.iov_cnt, sense);
        default:
            return -1;
    }
}

class EmptyDevice {
  public:
    explicit EmptyDevice(LibDevice* lib) : m_device(RealLibtcmuApi(), lib) {
        m_device.blockSize = static_cast<uint32_t>(tcmu_get_attribute(&m_device, "hw_block_size"));
        m_device.numLbas =
            static_cast<uint64_t>(tcmu_get_device_size(&m_device)) / m_device.blockSize;
        m_thread.Start("empty-device", [this] { Serve(); });
    }

  private:
    void Serve() {
        pollfd waits[] = {{m_device.api.Fd(m_device.lib), POLLIN, 0},
                          {m_thread.EndFd(), POLLIN, 0}};
        while (!m_thread.Ending()) {
            m_device.api.ProcessingStart(m_device.lib);
            m_device.ring.BeginDrain();
            while (RingCommand* command = m_device.ring.Fetch()) {
                m_device.ring.Complete(*command, Answer(m_device, *command));
                m_device.ring.RingDoorbell();
            }
            m_device.ring.EndDrain();
            poll(waits, 2, -1);
            if ((waits[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
                waits[0].fd = -1;
        }
    }

    tcmu_device m_device;
    ServiceThread m_thread;  // ends before the device goes
};

}  // namespace

int main() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    LibtcmuApi& tcmu = RealLibtcmuApi();
    std::map<LibDevice*, std::unique_ptr<EmptyDevice>> devices;  // the master thread's, then ours
    LibtcmuApi::Callbacks callbacks;
    callbacks.added = [&](LibDevice* lib) {
        devices[lib] = std::make_unique<EmptyDevice>(lib);
        return 0;
    };
    callbacks.removed = [&](LibDevice* lib) { devices.erase(lib); };
    callbacks.checkConfig = [](const std::string&, std::string&) { return true; };
    if (const int error = tcmu.Initialize({{"empty", "answers without data"}}, callbacks)) {
        fprintf(stderr, "empty_handler: libtcmu can't be opened (%d)\n", error);
        return 1;
    }
    MasterThread master(tcmu);
    master.Start();
    puts("ready");
    fflush(stdout);

    int signal = 0;
    sigwait(&stop, &signal);
    master.EndBy(ServiceThread::Clock::time_point::max());
    tcmu.Close();
    return 0;
}
