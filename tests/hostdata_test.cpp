// The data operations of a user LUN: every backing and engine moves the same bytes.

#include <dlfcn.h>
#include <fcntl.h>
#include <liburing.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <deque>
#include <fstream>
#include <random>

#include "host/data/ThreadQueue.h"
#include "host/data/UringQueue.h"
#include "tests/support/HostData.h"

std::vector<int> g_refusals;  ///< what io_uring_submit answers, last first, before it works again

uint8_t g_flags = 0;  ///< of the request that it was called for

extern "C" int __real_io_uring_submit(io_uring* ring);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_io_uring_submit(io_uring* ring) {  // NOLINT(bugprone-reserved-identifier)
    g_flags = ring->sq.sqes[(ring->sq.sqe_tail - 1) & *ring->sq.kring_mask].flags;
    if (g_refusals.empty())
        return __real_io_uring_submit(ring);
    const int answer = g_refusals.back();
    g_refusals.pop_back();
    return answer;
}

int g_threads = INT_MAX;  ///< that the system still gives

// In the place of the C library's for the C++ library too, which a linker's wrap doesn't reach.
extern "C" __attribute__((visibility("default"))) int pthread_create(pthread_t* thread,
                                                                     const pthread_attr_t* how,
                                                                     void* (*run)(void*),
                                                                     void* argument) noexcept {
    static const auto real =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    return g_threads-- <= 0 ? EAGAIN : real(thread, how, run, argument);
}

constexpr uint64_t kSize = 256 * 1024;

struct Engines : LunTest, WithParamInterface<std::string> {
    LunDataConfig Config() const {
        LunDataConfig config{"lun", Backing::File, path, kSize, {}, FileEngineChoice::Uring};
        if (GetParam() == "memory")
            config.backing = Backing::Memory;
        else if (GetParam() == "threads")
            config.engine = FileEngineChoice::Threads;
        return config;
    }
    void SetUp() override {
        Provide(kSize);
        const std::string error = Make(Config());
        if (error.find("not permitted") != std::string::npos)
            GTEST_SKIP() << "the kernel refuses io_uring here: " << error;
        ASSERT_EQ(error, "");
        ASSERT_EQ(lun->Snapshot().engine, GetParam());
    }
    std::string Content() {
        lun.reset();
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }
};
using Uring = Engines;

INSTANTIATE_TEST_SUITE_P(Data, Engines, Values("memory", "io_uring", "threads"));
INSTANTIATE_TEST_SUITE_P(Data, Uring, Values("io_uring"));

// More at once than a queue is deep, each in a part of the LUN of its own; the last may go beyond.
TEST_P(Engines, MoveAsAModelDoesWhateverTheBuffersAndTheRange) {
    std::mt19937 random(20240611);  // NOLINT(cert-msc51-cpp)
    const auto draw = [&](uint64_t most) { return random() % (most + 1); };
    std::string model(kSize, '\0');
    for (int round = 0; round < 60; ++round) {
        std::deque<Context> contexts;
        std::vector<std::pair<uint64_t, std::string>> wanted;
        const uint64_t each = kSize / (1 + draw(299));
        for (uint64_t start = 0; start < kSize; start += each) {
            const bool write = draw(1) == 0;
            const bool last = start + each >= kSize;
            uint64_t offset = start + draw(each);
            const uint64_t length = draw(last ? 2 * each : start + each - offset);
            if (last && round % 8 == 0)
                offset = UINT64_MAX - length / 2;  // wraps around
            std::vector<size_t> parts(draw(15));
            std::generate(parts.begin(), parts.end(),
                          [&] { return draw(4) == 0 ? 0 : draw(each / 3); });
            Context& context = contexts.emplace_back(offset, length, parts);
            std::generate(context.bytes.begin(), context.bytes.end(), std::ref(random));
            std::string bytes = context.bytes;
            const uint64_t within = offset < kSize ? kSize - offset : 0;
            const uint64_t moved = std::min({length, bytes.size(), within});
            if (write)
                std::copy_n(bytes.begin(), moved, model.begin() + std::min(offset, kSize));
            else if (moved > 0)
                std::copy_n(model.begin() + offset, moved, bytes.begin());
            wanted.emplace_back(moved, std::move(bytes));
            Begin(context, write);
            // The record's own list is the device's again at once; only the buffers stay.
            context.buffers.clear();
        }
        for (const auto& [moved, bytes] : wanted) {
            ASSERT_EQ(Result(contexts.front()), moved) << "round " << round;
            ASSERT_TRUE(contexts.front().bytes == bytes) << "round " << round;
            contexts.pop_front();
        }
    }
    EXPECT_TRUE(Content() == model || GetParam() == "memory");
}

TEST_P(Engines, WithoutAThreadThereIsOneLineAndNoLun) {
    const std::string_view engine = GetParam();
    const int needed = engine == "memory" ? 1 : engine == "threads" ? 9 : 2;
    for (int given = 0; given <= needed; ++given) {
        lun.reset();
        g_threads = given;
        const std::string error = Make(Config());
        g_threads = INT_MAX;
        EXPECT_EQ(error == "", given == needed) << given;
        EXPECT_THAT(error, AnyOf("", HasSubstr("no thread: Resource temporarily unavailable")));
    }
}

TEST_P(Engines, MemoryStaysOutOfCoreDumps) {
    std::ifstream maps("/proc/self/smaps");
    const std::string text{std::istreambuf_iterator<char>(maps), {}};
    const size_t place = text.find("moscsi:lun");
    ASSERT_EQ(place != std::string::npos, GetParam() == "memory");
    if (place != std::string::npos) {
        const size_t flags = text.find("VmFlags:", place);
        EXPECT_THAT(text.substr(flags, text.find('\n', flags) - flags), HasSubstr(" dd"));
    }
}

TEST_P(Uring, ARequestThatTheKernelsRingRefusesFailsAlone) {
    Context refused(0, 512, 'r');
    Context delayed(0, 512, 'd');
    g_refusals = {-ENOMEM};
    Begin(refused, true);
    EXPECT_EQ(Result(refused), -ENOMEM);
    g_refusals = {-EINTR, -EBUSY, -EAGAIN};
    Begin(delayed, true);
    EXPECT_EQ(Result(delayed), 512);
    EXPECT_EQ(lun->Snapshot().ignoredCompletions, 0U);
    EXPECT_EQ(Content().substr(0, 512), delayed.bytes);
}

// Else only a power cut would show it: this file can't be synced, and no file knows such a flag.
TEST(Queues, HandEachFlagAndEachSyncToTheKernel) {
    const int file = open("/dev/null", O_RDWR | O_CLOEXEC);
    char byte = 0;
    const iovec buffer{&byte, 1};
    for (const FileQueueMaker& make : {FileQueueMaker(UringQueue::Make), {ThreadQueue::Make}}) {
        std::atomic<int64_t> result;
        const auto ended = [&](Ticket, int64_t end) {
            result = end;
            result.notify_all();
        };
        std::string refusal;
        const auto queue = make(file, ended, refusal);
        using enum FileRequest::Kind;
        for (const FileRequest::Kind kind : {Read, Write, Sync}) {
            if (queue == nullptr)
                continue;  // io_uring may not be permitted
            result = INT64_MAX;
            queue->Submit({kind, 1 << 30, &buffer, 1, 0, 0, kind != Read});
            result.wait(INT64_MAX);
            EXPECT_EQ(result, kind == Sync ? -EINVAL : -EOPNOTSUPP) << queue->Name();
            const bool ring = queue->Name() == std::string("io_uring");
            EXPECT_EQ(g_flags, ring && kind != Read ? IOSQE_ASYNC : 0);
        }
    }
    close(file);
}
