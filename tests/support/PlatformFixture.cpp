#include "tests/support/PlatformFixture.h"

#include <cctype>
#include <filesystem>
#include <future>

#include "adapters/framework/GetGUID.h"

const char* const FakeTargetcli::kProgramDirectory = FAKE_TARGETCLI_PATH;

TemporaryDirectory::TemporaryDirectory()
    : path([] {
          std::string name = testing::TempDir() + "moscsi.XXXXXX";
          return std::string(mkdtemp(name.data()));
      }()) {}

TemporaryDirectory::~TemporaryDirectory() {
    std::filesystem::remove_all(path);
}

MoScsiSrvLIOTest::MoScsiSrvLIOTest() {
    os_seams::Reset();
    runner.Reset();
    static const std::string real = ConfigFSRoot();  // as it is before the first test
    EXPECT_EQ(real, "/sys/kernel/config/target/");
    ConfigFSRoot() = dir.path + "/";
    MakePlatform();
    os_seams::Reset();
    journal.Reset(5);
}

MoScsiSrvLIOTest::~MoScsiSrvLIOTest() {
    EXPECT_EQ(os_seams::OpenPipes(), 0);
    os_seams::Reset();
    EXPECT_FALSE(ConfigurationLocked());
    JoinRunner();
    journal.Watch(nullptr, "");
    SetInstance(nullptr);
}

void MoScsiSrvLIOTest::MakePlatform() {
    journal.Watch(nullptr, "");
    m_platform = std::make_unique<MoScsiSrvLIO>();
    SetInstance(m_platform.get());
    if (!runner.waitForInterrupt)
        JoinRunner();
    m_platform->m_targetCliVersion = kNew;
    journal.Watch(&m_platform->m_cfgMutex, "cfg");
    journal.Watch(&m_platform->m_tcmuDevMapMutex, "map");
}

void MoScsiSrvLIOTest::JoinRunner() {
    if (m_platform->m_runnerStarted)
        pthread_join(m_platform->m_tcmuRunnerThread, nullptr);
    m_platform->m_runnerStarted = false;
}

void MoScsiSrvLIOTest::DiscardInstance() {
    MoScsiSrvLIO* const made = MoScsiSrvLIO::g_LioPlatform;
    if (made->m_runnerStarted)
        pthread_join(made->m_tcmuRunnerThread, nullptr);
    delete made;
    SetInstance(m_platform.get());
}

bool MoScsiSrvLIOTest::ConfigurationLocked(bool repair) {
    // Another thread tries: a thread must not try to lock what it holds.
    const bool locked = std::async(std::launch::async, [this] {
                            if (!m_platform->m_cfgMutex.try_lock())
                                return true;
                            m_platform->m_cfgMutex.unlock();
                            return false;
                        }).get();
    if (locked && repair)
        m_platform->m_cfgMutex.unlock();
    return locked;
}

MoScsiSrvLun MoScsiSrvLIOTest::Lun(uint32_t type, uint32_t number) {
    static int context = 0;
    MoScsiSrvLun lun;
    lun.serialNum = "Ser";
    lun.lunNum = number;
    lun.targetName = "iqn.Ab";
    lun.path = "/Path";
    lun.bstorType = type;
    lun.size = uint64_t{1} << 33;
    lun.hostWord = 5;
    lun.hostQword1 = 6;
    lun.hostString = "host";
    lun.bstoreCtx = &context;
    lun.hostQword2 = 7;
    lun.hostFlag = true;
    lun.hostQword3 = 8;
    return lun;
}

std::string MoScsiSrvLIOTest::Guid(const std::string& text) {
    std::string guid;
    GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
    return guid;
}

std::string MoScsiSrvLIOTest::Lower(std::string text) {
    for (char& c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

MoScsiSrvLIOTest::Strings MoScsiSrvLIOTest::Commands() const {
    Strings commands;
    for (const std::string& event : journal.Events()) {
        if (event.starts_with("$ "))
            commands.push_back(event.substr(2));
    }
    return commands;
}

CRyError MoScsiSrvLIOTest::Update(const std::string& command, Strings tolerated) {
    Platform().m_cfgMutex.lock();
    CRyError result = Platform().TargetCliUpdateObject(command, std::move(tolerated));
    Platform().m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIOTest::Read(const std::string& command, std::string& out) {
    Platform().m_cfgMutex.lock();
    CRyError result = Platform().TargetCliReadObject(command, out);
    Platform().m_cfgMutex.unlock();
    return result;
}

const std::pair<MoScsiSrvLun, MoScsiSrvTcmuDev*>* MoScsiSrvLIOTest::Entry(const std::string& key) {
    const auto entry = Platform().m_tcmuDevMap.find(key);
    return entry == Platform().m_tcmuDevMap.end() ? nullptr : &entry->second;
}
