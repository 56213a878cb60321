#include "libtcmu/CommandRing.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "libtcmu/Cdb.h"
#include "libtcmu/Sense.h"

using ringlayout::Header;
using ringlayout::Mailbox;
using ringlayout::Request;
using ringlayout::Response;

namespace {

constexpr int kBusyStatus = 0x08;  // SAM-5, 5.3.1

uint32_t LengthOf(const Header& header) {
    return header.lengthAndOperation & ~ringlayout::kOperationMask;
}

uint32_t OperationOf(const Header& header) {
    return header.lengthAndOperation & ringlayout::kOperationMask;
}

}  // namespace

CommandRing::CommandRing(void* memory, size_t length, int uioFd)
    : m_memory(static_cast<uint8_t*>(memory)),
      m_length(length),
      m_doorbell(uioFd, m_stats.doorbells, m_stats.doorbellErrors) {
    m_broken = CheckMailbox();
    if (Broken() != nullptr)
        return;

    m_mailbox = static_cast<Mailbox*>(memory);
    m_ring = m_memory + m_mailbox->ringOffset;
    m_ringSize = m_mailbox->ringSize;
    m_takesReadLength = (m_mailbox->flags & ringlayout::kFlagReadLength) != 0;
    m_tail = m_mailbox->tail;
    m_seen = m_tail;
}

CommandRing::~CommandRing() = default;

const char* CommandRing::CheckMailbox() const {
    if (m_memory == nullptr || m_length < sizeof(Mailbox))
        return "the device's memory isn't mapped";
    Mailbox mailbox{};
    std::memcpy(&mailbox, m_memory, sizeof(mailbox));
    if (mailbox.version != ringlayout::kVersion)
        return "the mailbox has another version";
    if (mailbox.ringOffset < sizeof(Mailbox) || mailbox.ringOffset > m_length ||
        mailbox.ringSize > m_length - mailbox.ringOffset || mailbox.ringSize < sizeof(Response) ||
        (mailbox.ringOffset | mailbox.ringSize) % alignof(uint64_t) != 0)
        return "the mailbox states a command ring outside of the mapping";
    if (mailbox.tail >= mailbox.ringSize || mailbox.tail % alignof(uint64_t) != 0)
        return "the mailbox states a tail outside of the ring";
    return nullptr;
}

void CommandRing::SetBroken(const char* why) {
    const char* none = nullptr;
    m_broken.compare_exchange_strong(none, why, std::memory_order_acq_rel);
}

uint32_t CommandRing::LoadHead() const {
    return std::atomic_ref(m_mailbox->head).load(std::memory_order_acquire);
}

bool CommandRing::Empty() const {
    return m_mailbox == nullptr ||
           LoadHead() == std::atomic_ref(m_mailbox->tail).load(std::memory_order_acquire);
}

/// Reads the header at an offset below the ring's size.
/// Returns: false when the entry can't be one of the kernel's: it leaves the ring, or an answer
/// wouldn't fit into it.
bool CommandRing::ReadHeader(uint32_t offset, Header& header) const {
    std::memcpy(&header, m_ring + offset, sizeof(header));
    const uint32_t length = LengthOf(header);
    const size_t least = OperationOf(header) == ringlayout::kCommand ? sizeof(Response) : 8;
    return length >= least && length <= m_ringSize - offset;
}

RingCommand* CommandRing::Fetch() {
    while (Broken() == nullptr) {
        const uint32_t offset = m_seen.load(std::memory_order_relaxed);
        const uint32_t head = LoadHead();
        if (offset == head)
            return nullptr;

        Header header{};
        const uint32_t published = (head + m_ringSize - offset) % m_ringSize;
        if (head >= m_ringSize || !ReadHeader(offset, header) || LengthOf(header) > published) {
            SetBroken("an entry leaves the command ring");
            return nullptr;
        }
        if (OperationOf(header) != ringlayout::kCommand) {
            PassOther(offset, header);
            continue;
        }
        RingCommand* command = TakeRecord(header.number);
        if (command == nullptr) {
            SetBroken("the kernel used the number of a command that is still in flight");
            return nullptr;
        }
        const Copied copied = command == m_spare.get()
                                  ? Copied::kWithoutMemory
                                  : CopyOut(offset, LengthOf(header), *command);
        m_inFlight.fetch_add(1, std::memory_order_relaxed);
        m_seen.store((offset + LengthOf(header)) % m_ringSize, std::memory_order_release);
        if (copied == Copied::kAll) {
            m_stats.fetched.fetch_add(1, std::memory_order_relaxed);
            return command;
        }
        AnswerHere(*command, copied);
    }
    return nullptr;
}

void CommandRing::AnswerHere(RingCommand& command, Copied copied) {
    if (copied == Copied::kWithoutMemory) {
        m_stats.withoutMemory.fetch_add(1, std::memory_order_relaxed);
        Complete(command, kBusyStatus);
    } else {
        m_stats.badEntries.fetch_add(1, std::memory_order_relaxed);
        Complete(command, SetSense(command.sense_buf, Sense::kInternalTargetFailure));
    }
    RingDoorbell();
}

/// Steps over an entry that is no command: padding, a notice of task management, or an operation
/// that this server doesn't know, which the kernel wants to be told.
void CommandRing::PassOther(uint32_t offset, const Header& header) {
    if (OperationOf(header) > ringlayout::kTaskManagement)
        m_ring[offset + offsetof(Header, userFlags)] |= ringlayout::kUserUnknownOperation;
    m_stats.otherEntries.fetch_add(1, std::memory_order_relaxed);
    m_seen.store((offset + LengthOf(header)) % m_ringSize, std::memory_order_release);

    // With no command before it, no completion would move the tail past this entry.
    const MutexGuard guard(m_completionMutex);
    if (TailIsOursLocked())
        SkipOthersLocked();
}

/// The number's record, or the spare one when there is no memory for it. Null: it is in flight.
RingCommand* CommandRing::TakeRecord(uint16_t number) {
    RingCommand* record = m_spare.get();
    try {
        if (number >= m_records.size())
            m_records.resize(number + 1U);
        if (m_records[number] == nullptr)
            m_records[number].reset(new RingCommand);
        record = m_records[number].get();
    } catch (const std::bad_alloc&) {
        PrepareRecord(*record);
    }
    if (record->m_inFlight.exchange(true, std::memory_order_acquire))
        return nullptr;
    record->cmd_id = number;
    return record;
}

void CommandRing::PrepareRecord(RingCommand& command) {
    command.m_cdb.fill(0);
    command.cdb = command.m_cdb.data();
    command.iovec = command.m_inlineEntries.data();
    command.iov_cnt = 0;
    std::memset(command.sense_buf, 0, sizeof(command.sense_buf));
    command.hm_private = nullptr;
    command.readLength.reset();
    command.dataLength = 0;
    command.readBytes = 0;
}

/// Copies a command's entry into its record, which has no data unless all of it was copied.
CommandRing::Copied CommandRing::CopyOut(uint32_t offset, uint32_t length,
                                         RingCommand& command) const {
    PrepareRecord(command);
    Request request{};
    std::memcpy(&request, m_ring + offset, sizeof(request));
    if (request.entries > (length - sizeof(Request)) / sizeof(iovec))
        return Copied::kOutOfMapping;
    if (!CopyCdb(request.cdbOffset, command))
        return Copied::kOutOfMapping;

    if (request.entries > command.m_inlineEntries.size()) {
        try {
            command.m_manyEntries.resize(request.entries);
        } catch (const std::bad_alloc&) {
            return Copied::kWithoutMemory;
        }
        command.iovec = command.m_manyEntries.data();
    }
    std::memcpy(command.iovec, m_ring + offset + sizeof(Request), request.entries * sizeof(iovec));
    size_t total = 0;
    for (size_t i = 0; i < request.entries; i++) {
        iovec& entry = command.iovec[i];
        const auto start = reinterpret_cast<uintptr_t>(entry.iov_base);
        if (start > m_length || entry.iov_len > m_length - start)
            return Copied::kOutOfMapping;
        entry.iov_base = m_memory + start;
        total += entry.iov_len;
    }
    command.iov_cnt = request.entries;
    command.dataLength = total;
    if (KindOf(command.m_cdb[0]) == CommandKind::kRead)
        command.readBytes = total;
    return Copied::kAll;
}

bool CommandRing::CopyCdb(uint64_t offset, RingCommand& command) const {
    if (offset >= m_length)
        return false;
    const uint8_t* cdb = m_memory + offset;
    const size_t room = m_length - offset;
    if (cdb[0] == kVariableLengthCdb && room < 8)
        return false;
    const size_t length = std::min(CdbLength(cdb), RingCommand::kMaxCdb);
    if (length > room)
        return false;
    std::memcpy(command.m_cdb.data(), cdb, length);
    return true;
}

void CommandRing::Complete(RingCommand& command, int result) {
    const MutexGuard guard(m_completionMutex);
    if (!command.m_inFlight.load(std::memory_order_relaxed)) {
        m_stats.completedTwice.fetch_add(1, std::memory_order_relaxed);
        return;
    }
    const size_t readBytes = command.readBytes;
    std::optional<uint32_t> tail;
    if (Broken() == nullptr && TailIsOursLocked())
        tail = WriteAnswerLocked(command, result);

    // The record goes back before the tail moves: from then on the kernel may use its number again,
    // and the device's thread may fetch into it.
    command.m_inFlight.store(false, std::memory_order_release);
    m_inFlight.fetch_sub(1, std::memory_order_release);
    if (!tail)
        return;
    StoreTailLocked(*tail);
    SkipOthersLocked();
    m_stats.completed.fetch_add(1, std::memory_order_relaxed);
    m_doorbell.Owe(readBytes);
}

/// Writes an answer over the entry at the tail, whichever command that was. It is a command's
/// entry: what isn't one was stepped over when the tail or the device's thread came to it.
/// Returns: the tail behind it, or nothing when the memory has been damaged.
std::optional<uint32_t> CommandRing::WriteAnswerLocked(const RingCommand& command, int result) {
    Header header{};
    if (!ReadHeader(m_tail, header) || OperationOf(header) != ringlayout::kCommand) {
        SetBroken("there is no command's entry at the tail");
        return std::nullopt;
    }
    Response response{};
    response.header = header;
    response.header.number = command.cmd_id;
    if (result >= 0) {
        response.status = static_cast<uint8_t>(result);
        std::memcpy(response.sense, command.sense_buf, sizeof(response.sense));
    } else {
        response.status = TCMU_STATUS_CHECK_CONDITION;
        SetSense(response.sense,
                 result == -1 ? Sense::kInvalidOperationCode : Sense::kInternalTargetFailure);
    }
    if (response.status == TCMU_STATUS_GOOD && m_takesReadLength && command.readLength) {
        response.header.userFlags = ringlayout::kUserReadLength;
        response.readLength = *command.readLength;
    }
    std::memcpy(m_ring + m_tail, &response, sizeof(response));
    return (m_tail + LengthOf(header)) % m_ringSize;
}

/// Only we move the tail. When somebody else did, the kernel has reset the ring for another
/// process and taken its commands back: an answer of ours would carry a number that it no longer
/// knows, which breaks the device for good.
bool CommandRing::TailIsOursLocked() {
    if (std::atomic_ref(m_mailbox->tail).load(std::memory_order_relaxed) == m_tail)
        return true;
    SetBroken("another process has reset the ring");
    return false;
}

void CommandRing::StoreTailLocked(uint32_t tail) {
    m_tail = tail;
    std::atomic_ref(m_mailbox->tail).store(tail, std::memory_order_release);
}

/// Moves the tail over what needs no answer, as far as the device's thread has looked.
void CommandRing::SkipOthersLocked() {
    const uint32_t seen = m_seen.load(std::memory_order_acquire);
    uint32_t tail = m_tail;
    Header header{};
    while (tail != seen && ReadHeader(tail, header) && OperationOf(header) != ringlayout::kCommand)
        tail = (tail + LengthOf(header)) % m_ringSize;
    if (tail != m_tail)
        StoreTailLocked(tail);
}

void CommandRing::RingDoorbell() {
    m_doorbell.Ring();
}

void CommandRing::BeginDrain() {
    m_doorbell.BeginDrain();
    const MutexGuard guard(m_completionMutex);
    if (Broken() == nullptr)
        TailIsOursLocked();
}

void CommandRing::EndDrain() {
    m_doorbell.EndDrain();
}
