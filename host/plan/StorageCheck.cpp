#include "host/plan/StorageCheck.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

#include "host/plan/Identity.h"

namespace {

constexpr uint64_t kBlock = 512;
constexpr uint64_t kMaxUserBlocks = uint64_t{1} << 32;  // WRITE (10) addresses no more

Medium MediumOf(Backing backing) {
    switch (backing) {
        case Backing::Memory:
            return Medium::Memory;
        case Backing::File:
            return Medium::File;
    }
    return {};
}

}  // namespace

Medium MediumOf(const LunConfig& lun) {
    switch (lun.type) {
        case LunType::File:
            return Medium::File;
        case LunType::Block:
            return Medium::Device;
        case LunType::User:
            return MediumOf(lun.backing);
    }
    return {};
}

void StorageCheck::CheckFile(const PathFacts& facts, LunPlan& plan) {
    const LunConfig& config = plan.config;
    if (facts.kind == PathFacts::Kind::Missing) {
        plan.missing = true;
    } else if (facts.kind != PathFacts::Kind::File) {
        Refuse(plan, "path",
               fmt::format("{} is no regular file: give a file, or type = \"block\" for a device",
                           config.path));
    } else {
        plan.size = facts.length;
        if (config.size && *config.size != facts.length)
            Refuse(plan, "size",
                   fmt::format("{} is {} bytes long, and size says {}: leave size out, or change "
                               "the file",
                               config.path, facts.length, *config.size));
        else if (facts.length == 0 || facts.length % kBlock != 0)
            Refuse(plan, "path",
                   fmt::format("{} is {} bytes long, which is no positive multiple of 512: "
                               "lengthen it with truncate -s",
                               config.path, facts.length));
        else
            CheckWritable(plan);
    }
}

/// Memory is taken as it is written: too much of it isn't refused then, the kernel kills the host.
void StorageCheck::CheckMemory(const LunPlan& plan) {
    constexpr uint64_t kMebibyte = 1 << 20;
    const uint64_t given = m_storage.MemoryToGive().value_or(UINT64_MAX);
    const bool wereGood = m_memory <= given;
    m_memory += plan.size;
    if (wereGood && m_memory > given)
        Refuse(plan, "size",
               fmt::format("the memory LUNs up to this one come to {}, and this machine can give "
                           "{}: make them smaller",
                           SizeText(m_memory), SizeText(given / kMebibyte * kMebibyte)));
}

void StorageCheck::CheckWritable(const LunPlan& plan) {
    const std::string& path = plan.config.path;
    const int error = m_storage.WriteError(path);
    if (error == EROFS)
        Refuse(plan, "path",
               fmt::format("{} is on a file system that is mounted read-only: mount it writable",
                           path));
    else if (error == EPERM)
        Refuse(plan, "path",
               fmt::format("{} is immutable or append-only: change that with chattr -i -a", path));
    else if (error != 0)
        Refuse(
            plan, "path",
            fmt::format("{} can't be opened for writing ({}): mend that", path, strerror(error)));
    else if (const std::string use = m_storage.FileUse(path); !use.empty())
        Refuse(plan, "path",
               fmt::format("{} {}: two writers would spoil it; end the other use", path, use));
}

void StorageCheck::CheckDevice(const PathFacts& facts, LunPlan& plan) {
    const LunConfig& config = plan.config;
    if (facts.kind != PathFacts::Kind::BlockDevice) {
        Refuse(plan, "path",
               facts.kind == PathFacts::Kind::Missing
                   ? fmt::format("the device {} isn't there: give one that is", config.path)
                   : fmt::format("{} is no block device: give one, or type = \"file\" for a file",
                                 config.path));
        return;
    }
    plan.device = facts.device;
    plan.size = m_storage.DeviceSize(facts.device).value_or(0);
    if (plan.size == 0)
        Refuse(
            plan, "path",
            fmt::format("the device {} has no size: attach a medium or a file to it", config.path));
    else if (config.size && *config.size != plan.size)
        Refuse(plan, "size",
               fmt::format("the device {} has {} bytes, and size says {}: leave size out",
                           config.path, plan.size, *config.size));
    if (m_storage.DeviceReadOnly(facts.device))
        Refuse(plan, "path",
               fmt::format("the device {} is read-only: make it writable, or give another",
                           config.path));
    if (const std::string use = m_storage.DeviceUse(facts.device); !use.empty())
        Refuse(plan, "path",
               fmt::format("the device {} {}: free it, or give another", config.path, use));
}

void StorageCheck::Check(LunPlan& plan) {
    const LunConfig& config = plan.config;
    if (config.size && (*config.size == 0 || *config.size % kBlock != 0))
        Refuse(plan, "size",
               fmt::format("size {} is no positive multiple of 512: round it", *config.size));
    plan.size = config.size.value_or(0);

    const Medium medium = MediumOf(config);
    if (medium == Medium::Memory) {
        if (!config.size)
            Refuse(plan, "size",
                   fmt::format("a LUN on {} needs size = \"...\"", BackingName(config.backing)));
        CheckMemory(plan);
    } else {
        const PathFacts facts = m_storage.LookAt(config.path);
        if (facts.error != 0) {
            Refuse(plan, "path",
                   fmt::format("{} can't be looked at ({}): mend the path", config.path,
                               strerror(facts.error)));
            return;
        }
        plan.identity = facts.identity;
        if (medium == Medium::Device)
            CheckDevice(facts, plan);
        else
            CheckFile(facts, plan);
        const std::string earlier = m_used.Earlier(facts.identity, config.places.At("path"));
        if (!earlier.empty())
            Refuse(plan, "path",
                   fmt::format("{} is used by two LUNs, the other one in {}: give each its own",
                               config.path, earlier));
    }
    if (config.type == LunType::User && plan.size > kMaxUserBlocks * kBlock)
        Refuse(plan, "size",
               fmt::format("{} is more than 2 TiB, which a user LUN can't address: use less",
                           SizeText(plan.size)));
}
