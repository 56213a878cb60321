#pragma once

#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include "host/plan/Plan.h"
#include "tests/support/FakeConfigfs.h"
#include "tests/support/TempDirectory.h"

using namespace testing;  // matchers

namespace fs = std::filesystem;

const std::string kTarget = "[[target]]\nname='iqn.2026-01.com.example:t'\n";
const std::string kHost = "iqn.2026-01.com.example:h";

/// A machine with a few devices and file systems that this one hasn't got.
struct DeviceStorage : Storage {
    using Storage::Storage;

    PathFacts LookAt(const std::string& path) const override {
        if (!path.starts_with("/dev/loop"))
            return Storage::LookAt(path);
        PathFacts facts;
        facts.kind = PathFacts::Kind::BlockDevice;
        facts.device = makedev(7, static_cast<unsigned>(path.back() - '0'));
        facts.identity = "device 7:" + std::string(1, path.back());
        return facts;
    }
    int WriteError(const std::string& path) const override {
        const std::map<std::string, int> errors{
            {"rofs.img", EROFS}, {"fixed.img", EPERM}, {"bad.img", EIO}};
        const auto error = errors.find(fs::path(path).filename());
        return error == errors.end() ? Storage::WriteError(path) : error->second;
    }
};

/// A directory with a good file, and devices: one that is free, a read-only, a mounted and a used
/// one.
struct PlanTest : Test {
    TempDirectory directory;
    const fs::path& dir = directory.path;
    StorageRoots roots{dir / "sys", dir / "mountinfo", dir / "swaps", dir / "proc", {7}};

    PlanTest() {
        Make("good.img", 1024);
        for (const std::string device : {"sys/7:0", "sys/7:1", "sys/7:2", "sys/7:3"}) {
            FakeConfigfs::Write(dir / (device + "/size"), "8");
            FakeConfigfs::Write(dir / (device + "/ro"), device == "sys/7:1" ? "1" : "0");
        }
        FakeConfigfs::Write(dir / "sys/7:2/loop2p1/partition", "1");
        FakeConfigfs::Write(dir / "sys/7:2/loop2p1/dev", "259:5");
        FakeConfigfs::Write(dir / "sys/7:4/loop/backing_file", (dir / "loop.img").string());
        FakeConfigfs::Write(dir / "swaps",
                            "Filename\tType\n" + (dir / "swap.img").string() + " file");
        FakeConfigfs::Write(dir / "proc/meminfo", "MemTotal: 9 kB\nMemAvailable: 3000000000 kB");
        FakeConfigfs::Write(dir / "proc/7/status", "Name: moscsi-host\nRssShmem: 1000000000 kB");
        FakeConfigfs::Write(dir / "mountinfo", "36 1 259:5 / /srv/data rw - ext4 /dev/none rw");
        FakeConfigfs::Write(dir / "sys/7:3/holders/dm-0/dev", "");
    }
    void Make(const std::string& name, uintmax_t length) {
        std::ofstream(dir / name).close();
        fs::resize_file(dir / name, length);
    }

    /// "@" stands for the test's directory.
    std::string Expand(std::string text) const {
        for (size_t at = 0; (at = text.find('@', at)) != std::string::npos;)
            text.replace(at, 1, dir.string());
        return text;
    }
    Plan PlanOf(const std::string& text) {
        problems = {};
        const Config config = ParseConfig(Expand(text), "f.toml", problems);
        return problems.Empty() ? MakePlan(config, 3260, DeviceStorage(roots), problems) : Plan();
    }

    Problems problems;
};

inline std::string LunText(const std::string& type, const std::string& keys,
                           const std::string& name = "a") {
    return "[[target.lun]]\nname='" + name + "'\ntype='" + type + "'\n" + keys + "\n";
}
inline std::string Memory(const std::string& keys, const std::string& name = "a") {
    return LunText("user", "backing='memory'\n" + keys, name);
}
inline std::string Initiator(const std::string& name, const std::string& luns) {
    return "[[target.initiator]]\nname='" + name + "'\nluns=" + luns + "\n";
}
