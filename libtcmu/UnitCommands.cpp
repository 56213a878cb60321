// TEST UNIT READY (SPC-4, 6.47), START STOP UNIT (SBC-3, 5.25), READ CAPACITY (SBC-3, 5.15, 5.16).
#include <algorithm>

#include "libtcmu/Answer.h"
#include "libtcmu/Cdb.h"
#include "libtcmu/Sense.h"
#include "libtcmu/libtcmu.h"

int tcmu_emulate_test_unit_ready(uint8_t* /*cdb*/, iovec* /*iov*/, size_t /*iovCnt*/,
                                 uint8_t* /*sense*/) {
    return TCMU_STATUS_GOOD;
}

/// The unit is always started, has no medium to load or eject, and knows no power conditions, so
/// that a start is all that can be done. Nothing takes time: IMMED and NO_FLUSH make no difference.
int tcmu_emulate_start_stop(tcmu_device* /*dev*/, uint8_t* cdb, uint8_t* sense) {
    const bool start = (cdb[4] & 0x01U) != 0;
    const bool loadOrEject = (cdb[4] & 0x02U) != 0;
    const uint8_t powerCondition = cdb[4] >> 4U;
    const uint8_t modifier = cdb[3] & 0x0FU;
    if (!start || loadOrEject || powerCondition != 0 || modifier != 0)
        return SetSense(sense, Sense::kInvalidFieldInCdb);
    return TCMU_STATUS_GOOD;
}

int tcmu_emulate_read_capacity_10(uint64_t numLbas, uint32_t blockSize, uint8_t* cdb, iovec* iov,
                                  size_t iovCnt, uint8_t* sense) {
    const bool partialMedium = (cdb[8] & 0x01U) != 0;
    if (partialMedium || LoadBe32(cdb + 2) != 0)
        return SetSense(sense, Sense::kInvalidFieldInCdb);
    if (numLbas == 0)
        return SetSense(sense, Sense::kMediumNotPresent);
    constexpr uint64_t kAskWithSixteen = UINT32_MAX;  // the last block's number doesn't fit

    Answer answer;
    answer.Be32(static_cast<uint32_t>(std::min(numLbas - 1, kAskWithSixteen)));
    answer.Be32(blockSize);
    return SendAnswer(answer, answer.Length(), iov, iovCnt);
}

int tcmu_emulate_read_capacity_16(uint64_t numLbas, uint32_t blockSize, uint8_t* cdb, iovec* iov,
                                  size_t iovCnt, uint8_t* sense) {
    const bool partialMedium = (cdb[14] & 0x01U) != 0;
    if (partialMedium || LoadBe64(cdb + 2) != 0)
        return SetSense(sense, Sense::kInvalidFieldInCdb);
    if (numLbas == 0)
        return SetSense(sense, Sense::kMediumNotPresent);

    Answer answer;
    answer.Be64(numLbas - 1);
    answer.Be32(blockSize);
    answer.Zeros(20);  // no protection; one logical block a physical one; fully provisioned
    return SendAnswer(answer, LoadBe32(cdb + 10), iov, iovCnt);
}
