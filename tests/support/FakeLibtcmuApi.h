#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>

#include "libtcmu/Device.h"
#include "tests/support/KernelRing.h"

/// Bytes from hexadecimal digits, blanks allowed.
inline Bytes Hex(std::string text) {
    std::erase(text, ' ');
    Bytes bytes;
    for (size_t i = 0; i < text.size(); i += 2)
        bytes.push_back(static_cast<uint8_t>(std::stoul(text.substr(i, 2), nullptr, 16)));
    return bytes;
}

/// Waits until the condition holds. In vain: the test ends there, or the program when it was
/// another thread that waited, and says the line.
inline void Await(const std::function<bool()>& condition, int line = __builtin_LINE()) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            throw std::runtime_error("line " + std::to_string(line) + " waited in vain");
        std::this_thread::yield();
    }
}

/// A device as libtcmu would know it. Thread: the test's.
struct FakeDevice {
    std::string cfgString = "MoScsiSrvTcmu/0123";
    std::string uioName = "uio0";
    std::string serial = "host1-0f9A0000111122223333444455556666";
    uint64_t size = 1 << 20;
    KernelRing ring{256 * 1024, size_t(8) << 20};
    std::atomic<int> looks{0};  ///< of the tested side at the events

    LibDevice* Lib() { return reinterpret_cast<LibDevice*>(this); }

    /// Where a command's answer will be (the ring's own number is used again as soon as the answer
    /// is taken out).
    using Ticket = std::shared_ptr<std::optional<KernelRing::Answer>>;

    /// Puts a command in and raises the event.
    Ticket Submit(const Bytes& cdb, const Extents& data = {}) {
        const auto number = ring.Put(cdb, data);
        EXPECT_TRUE(number.has_value());
        ring.RaiseEvent();
        return m_waiting[number.value_or(0)] = std::make_shared<Ticket::element_type>();
    }

    bool AnsweredAll() {
        if (ring.Doorbells() > 0)  // the kernel looks when it is told to
            for (const KernelRing::Answer& answer : ring.Reap())
                *m_waiting[answer.number] = answer;
        return ring.InFlight() == 0;
    }
    /// The answer to a command, if it is there.
    std::optional<KernelRing::Answer> AnswerOf(const Ticket& ticket) {
        AnsweredAll();
        return *ticket;
    }

    KernelRing::Answer WaitForAnswer(const Ticket& ticket, int line = __builtin_LINE()) {
        Await([&] { return AnswerOf(ticket).has_value(); }, line);
        return **ticket;
    }
    uint8_t StatusOf(const Bytes& cdb, const Extents& data = {}, int line = __builtin_LINE()) {
        return WaitForAnswer(Submit(cdb, data), line).status;
    }

  private:
    std::map<uint16_t, Ticket> m_waiting;  // by the ring's number, while in flight
};

/// libtcmu without a kernel: devices are what the test makes, netlink events what it announces.
struct FakeLibtcmuApi : LibtcmuApi {
    std::vector<FakeDevice*> existing;  // found by Initialize
    std::function<int()> onInitialize = [] { return 0; };
    std::function<void()> onClose = [] {};

    std::atomic<bool> closed{false};
    int asked = 0;                 // netlink events
    std::atomic<int> answered{0};  // of these
    std::atomic<int> lastAdded{1};
    std::vector<std::string> subTypes;

    /// The kernel announces a device, or asks for its removal.
    void Announce(FakeDevice& device) { Push({&device, true}); }
    void Remove(FakeDevice& device) { Push({&device, false}); }

    int Initialize(const std::vector<SubType>& types, Callbacks callbacks) override {
        for (const SubType& type : types)
            subTypes.push_back(type.name);
        if (const int result = onInitialize(); result != 0)
            return result;
        m_callbacks = std::move(callbacks);
        for (FakeDevice* device : existing)
            Add(device);
        return 0;
    }
    int MasterFd() override { return m_master.ends[1]; }
    int MasterFdReady() override {
        Event event{};  // one at a time, as the real one
        if (read(m_master.ends[1], &event, sizeof event) != sizeof event)
            return -EAGAIN;
        event.added ? Add(event.device) : Drop(event.device);
        ++answered;
        return 0;
    }
    void Close() override {
        for (FakeDevice* device : std::vector(m_known)) {
            const ringlayout::Mailbox& mailbox = device->ring.Mailbox();
            EXPECT_EQ(mailbox.head, mailbox.tail) << "the real one would wait for ever";
            Drop(device);
        }
        onClose();
        closed = true;
    }

    std::string CfgString(LibDevice* dev) override { return Of(dev).cfgString; }
    int AttrInt(LibDevice* /*dev*/, const char* name) override {
        return std::string(name) == "hw_block_size" ? 512 : -ENOENT;
    }
    int InfoU64(LibDevice* dev, const char* name, uint64_t& value) override {
        value = Of(dev).size;
        return std::string(name) == "Size" ? 0 : -ENOENT;
    }
    int Serial(LibDevice* dev, std::string& serial) override {
        serial = Of(dev).serial;
        return serial == "unreadable" ? -EMFILE : 0;
    }
    int Fd(LibDevice* dev) override { return Of(dev).ring.DoorbellFd(); }
    Memory MemoryInfo(LibDevice* dev) override {
        return {Of(dev).ring.Memory(), Of(dev).ring.Length()};
    }
    std::string UioName(LibDevice* dev) override { return Of(dev).uioName; }
    void ProcessingStart(LibDevice* dev) override {
        ++Of(dev).looks;
        char events[256];
        while (read(Fd(dev), events, sizeof events) > 0) {
        }
    }

  private:
    struct Event {
        FakeDevice* device;
        bool added;
    };

    static FakeDevice& Of(LibDevice* dev) { return *reinterpret_cast<FakeDevice*>(dev); }
    void Push(const Event& event) {
        ++asked;
        EXPECT_EQ(write(m_master.ends[0], &event, sizeof event), ssize_t{sizeof event});
    }
    void Add(FakeDevice* device) {
        lastAdded = m_callbacks.added(device->Lib());
        if (lastAdded == 0)
            m_known.push_back(device);
    }
    void Drop(FakeDevice* device) {
        std::erase(m_known, device);
        m_callbacks.removed(device->Lib());
    }

    SocketPair m_master;
    Callbacks m_callbacks;
    std::vector<FakeDevice*> m_known;
};
