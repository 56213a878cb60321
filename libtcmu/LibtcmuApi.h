#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// libtcmu's own device record. Opaque: only LibtcmuApi looks into it.
struct LibDevice;

/// What is used of Debian's libtcmu.so.2: finding devices, the kernel's netlink dialogue, the UIO
/// descriptor with its mapping, and configfs attributes. Commands are not fetched or completed with
/// it; see CommandRing. The seam lets tests run without the library and make any call fail.
///
/// One context a process. Life: Initialize -> MasterFdReady whenever MasterFd is readable ->
/// Close. `added` and `removed` are called from inside Initialize, MasterFdReady and Close.
///
/// Thread: Initialize, MasterFdReady and Close on one thread at a time. Device operations on any
/// thread, from the device's `added` until its `removed` has returned.
class LibtcmuApi {
  public:
    struct SubType {
        std::string name;         ///< as the kernel's configuration string spells it
        std::string description;  ///< of the configuration string
    };

    struct Callbacks {
        /// A device of ours is there, new or left by an earlier process; commands may be in its
        /// ring already. Returns: 0, or a negative errno, which refuses it.
        std::function<int(LibDevice*)> added;
        /// The kernel removes the device. Its ring is unmapped when this returns, whatever is
        /// still in flight.
        std::function<void(LibDevice*)> removed;
        /// Judges a configuration string. Returns: true, or false with the reason.
        std::function<bool(const std::string&, std::string&)> checkConfig;
    };

    /// The memory shared with the kernel: mailbox, command ring, data area.
    struct Memory {
        void* base = nullptr;
        size_t length = 0;
    };

    virtual ~LibtcmuApi() = default;

    /// Opens the context. Resets the ring of every device of these sub-types that exists, so only
    /// the owner of the D-Bus name may call it.
    /// Returns: 0, or a negative errno: without the kernel's netlink family TCM-USER, for one.
    virtual int Initialize(const std::vector<SubType>& subTypes, Callbacks callbacks) = 0;

    /// The netlink descriptor to poll. Requires: Initialize succeeded.
    virtual int MasterFd() = 0;

    /// Handles what MasterFd has to say. Returns: 0, or a negative number of the netlink library.
    virtual int MasterFdReady() = 0;

    /// Blocks each device, waits without limit until its ring is empty, calls `removed`, closes.
    virtual void Close() = 0;

    /// "SUBTYPE/REST", as the kernel has it.
    virtual std::string CfgString(LibDevice* dev) = 0;

    /// An integer attribute of the backstore. Returns: its value, or a negative errno.
    virtual int AttrInt(LibDevice* dev, const char* name) = 0;

    /// A number of the backstore's `info` file, "Size" for one.
    /// Returns: 0 with `value` set, or a negative errno.
    virtual int InfoU64(LibDevice* dev, const char* name, uint64_t& value) = 0;

    /// The unit serial as configfs has it now; empty when it isn't set yet. A device that targetcli
    /// makes gets its serial after `added`, so read it when it is asked for.
    /// Returns: 0 with `serial` set, or a negative errno: it can't be read, and may be anything.
    virtual int Serial(LibDevice* dev, std::string& serial) = 0;

    /// The UIO descriptor, non-blocking. It is libtcmu's.
    virtual int Fd(LibDevice* dev) = 0;

    /// Null base when libtcmu can't say.
    virtual Memory MemoryInfo(LibDevice* dev) = 0;

    /// "uioN".
    virtual std::string UioName(LibDevice* dev) = 0;

    /// Takes the event count off the UIO descriptor. Before a drain, so that a later event wakes.
    virtual void ProcessingStart(LibDevice* dev) = 0;
};

/// The API over the installed libtcmu.so.2 (LibtcmuSo.cpp). The first call makes the process's one
/// object; it is never destroyed.
LibtcmuApi& RealLibtcmuApi();
