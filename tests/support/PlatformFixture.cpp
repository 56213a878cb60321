#include "tests/support/PlatformFixture.h"

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include "adapters/framework/GetGUID.h"
#include "adapters/runner/tcmu_runner.h"

FakeRunner MoScsiSrvLIOTest::runner;

int tcmu_runner_main(int argc, char** argv) {
    // As the real one does, to the end of the process: nobody else holds the strings.
    static auto& kept = *new std::vector<char*>;
    kept.insert(kept.end(), argv, argv + argc);

    FakeRunner& runner = MoScsiSrvLIOTest::runner;
    runner.arguments.assign(argv, argv + argc);
    EXPECT_EQ(argv[argc], nullptr);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGINT), 1);
    if (runner.waitForInterrupt) {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        const timespec limit = {10, 0};
        int signal = 0;
        do {
            signal = sigtimedwait(&interrupt, nullptr, &limit);
        } while (signal < 0 && errno == EINTR);  // a sanitizer may stop the thread for a while
        runner.interrupted = signal == SIGINT;
    }
    return runner.result;
}

static auto OpenFiles() {
    return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
}

CRyError HeldTransfers::Call(const char* operation, const Hook& hook, void* ctx, MoScsiSrvIO* ioctx,
                             int reserved) {
    CapturingLogWriter::Installed().Note(operation);
    EXPECT_EQ(ctx, &held);
    EXPECT_EQ(reserved, 0);
    hook(ioctx);
    return ignored;
}

MoScsiSrvLIOTest::MoScsiSrvLIOTest()
    : dir([] {
          std::string name = testing::TempDir() + "moscsi.XXXXXX";
          return std::string(mkdtemp(name.data()));
      }()),
      m_filesBefore(OpenFiles()) {
    static const std::string real = ConfigFSRoot();  // as it is before the first test
    EXPECT_EQ(real, "/sys/kernel/config/target/");
    static const std::string path = getenv("PATH");
    setenv("PATH", (FAKE_TARGETCLI_PATH ":" + path).c_str(), 1);
    setenv("FAKE_TARGETCLI", dir.c_str(), 1);
    ConfigFSRoot() = dir + "/";
    runner = {};
    MakePlatform();
    g_os = {};
    journal.Reset(5);
}

MoScsiSrvLIOTest::~MoScsiSrvLIOTest() {
    EXPECT_EQ(OpenFiles(), m_filesBefore);
    g_os = {};
    for (const char* name : CapturingLogWriter::kWatched)
        journal.Watch(name, nullptr);
    // Another thread tries: a thread must not try to lock what it holds.
    EXPECT_TRUE(std::async(std::launch::async, [this] {
                    if (!ConfigurationMutex().try_lock())
                        return false;
                    ConfigurationMutex().unlock();
                    return true;
                }).get());
    JoinRunner(Platform());
    SetInstance(nullptr);
    std::filesystem::remove_all(dir);
}

void MoScsiSrvLIOTest::MakePlatform() {
    m_platform = std::make_unique<MoScsiSrvLIO>();
    SetInstance(m_platform.get());
    if (!runner.waitForInterrupt)
        JoinRunner(Platform());
    Version() = kNew;
    journal.Watch("cfg", &m_platform->m_cfgMutex);
    journal.Watch("map", &m_platform->m_tcmuDevMapMutex);
}

void MoScsiSrvLIOTest::JoinRunner(MoScsiSrvLIO& platform) {
    if (platform.m_runnerStarted)
        pthread_join(platform.m_tcmuRunnerThread, nullptr);
    platform.m_runnerStarted = false;
}

MoScsiSrvLun MoScsiSrvLIOTest::Lun(uint32_t type, uint32_t number) {
    MoScsiSrvLun lun;
    lun.serialNum = "Ser";
    lun.lunNum = number;
    lun.targetName = "iqn.Ab";
    lun.path = "/Path";
    lun.bstorType = type;
    lun.size = uint64_t{1} << 33;
    lun.hostWord = 5;
    lun.hostQword1 = 6;
    lun.bstoreCtx = &host.held;
    lun.bstoreOps = &host;
    lun.hostQword3 = 8;
    return lun;
}

void MoScsiSrvLIOTest::Answer(const std::string& arguments, const std::string& err,
                              const std::string& out) const {
    std::ofstream(dir + "/answer") << arguments << '|' << out << '|' << err << '\n';
}

MoScsiSrvLIOTest::Strings MoScsiSrvLIOTest::Lines(const std::string& file) const {
    std::ifstream stream(dir + "/" + file);
    Strings lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string MoScsiSrvLIOTest::Guid(const std::string& text) {
    std::string guid;
    GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
    return guid;
}

std::string MoScsiSrvLIOTest::Lower(std::string text) {
    std::ranges::transform(text, text.begin(), [](unsigned char c) { return tolower(c); });
    return text;
}

void MoScsiSrvLIOTest::ExpectError(const CRyError& error, int number, const std::string& message) {
    EXPECT_TRUE(error.IsError());
    EXPECT_EQ(error.Number(), number);
    EXPECT_EQ(error.Message(), message);
}

CRyError MoScsiSrvLIOTest::Update(const std::string& command, Strings tolerated) {
    MutexGuard guard(ConfigurationMutex());
    return Platform().TargetCliUpdateObject(command, std::move(tolerated));
}

CRyError MoScsiSrvLIOTest::Read(const std::string& command, std::string& out) {
    MutexGuard guard(ConfigurationMutex());
    return Platform().TargetCliReadObject(command, out);
}
