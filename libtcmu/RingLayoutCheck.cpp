// The kernel's own header checks our picture of the shared memory, at compile time. It isn't valid
// C++ for one function, which gets another result type here.
#define tcmu_hdr_get_op(argument)       \
    tcmu_hdr_get_op(argument) = delete; \
    static inline unsigned OperationOf(argument)
#include <linux/target_core_user.h>
#undef tcmu_hdr_get_op

#include "libtcmu/RingLayout.h"

namespace {

using namespace ringlayout;

static_assert(kVersion == TCMU_MAILBOX_VERSION);
static_assert(kFlagReadLength == TCMU_MAILBOX_FLAG_CAP_READ_LEN);
static_assert(offsetof(Mailbox, version) == offsetof(tcmu_mailbox, version));
static_assert(offsetof(Mailbox, flags) == offsetof(tcmu_mailbox, flags));
static_assert(offsetof(Mailbox, ringOffset) == offsetof(tcmu_mailbox, cmdr_off));
static_assert(offsetof(Mailbox, ringSize) == offsetof(tcmu_mailbox, cmdr_size));
static_assert(offsetof(Mailbox, head) == offsetof(tcmu_mailbox, cmd_head));
static_assert(offsetof(Mailbox, tail) == offsetof(tcmu_mailbox, cmd_tail));

static_assert(kPad == uint32_t{TCMU_OP_PAD} && kCommand == uint32_t{TCMU_OP_CMD} &&
              kTaskManagement == uint32_t{TCMU_OP_TMR});
static_assert(kOperationMask == TCMU_OP_MASK);
static_assert(kUserUnknownOperation == TCMU_UFLAG_UNKNOWN_OP);
static_assert(kUserReadLength == TCMU_UFLAG_READ_LEN);
static_assert(sizeof(Header) == sizeof(tcmu_cmd_entry_hdr));
static_assert(offsetof(Header, lengthAndOperation) == offsetof(tcmu_cmd_entry_hdr, len_op));
static_assert(offsetof(Header, number) == offsetof(tcmu_cmd_entry_hdr, cmd_id));
static_assert(offsetof(Header, kernelFlags) == offsetof(tcmu_cmd_entry_hdr, kflags));
static_assert(offsetof(Header, userFlags) == offsetof(tcmu_cmd_entry_hdr, uflags));

static_assert(offsetof(Request, entries) == offsetof(tcmu_cmd_entry, req.iov_cnt));
static_assert(offsetof(Request, bidiEntries) == offsetof(tcmu_cmd_entry, req.iov_bidi_cnt));
static_assert(offsetof(Request, difEntries) == offsetof(tcmu_cmd_entry, req.iov_dif_cnt));
static_assert(offsetof(Request, cdbOffset) == offsetof(tcmu_cmd_entry, req.cdb_off));
static_assert(sizeof(Request) == offsetof(tcmu_cmd_entry, req.iov));

static_assert(sizeof(Response) == sizeof(tcmu_cmd_entry));
static_assert(offsetof(Response, status) == offsetof(tcmu_cmd_entry, rsp.scsi_status));
static_assert(offsetof(Response, readLength) == offsetof(tcmu_cmd_entry, rsp.read_len));
static_assert(offsetof(Response, sense) == offsetof(tcmu_cmd_entry, rsp.sense_buffer));
static_assert(sizeof(Response::sense) == TCMU_SENSE_BUFFERSIZE);

}  // namespace
