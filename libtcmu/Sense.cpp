#include "libtcmu/Sense.h"

#include <cstring>

#include "libtcmu/libtcmu.h"

int tcmu_set_sense_data(uint8_t* sense, uint8_t key, uint16_t ascAscq) {
    constexpr size_t kLength = 18;  // SPC-4, 4.5.3
    std::memset(sense, 0, kLength);
    sense[0] = 0x70;  // current error, fixed format
    sense[2] = key;
    sense[7] = kLength - 8;
    sense[12] = static_cast<uint8_t>(ascAscq >> 8U);
    sense[13] = static_cast<uint8_t>(ascAscq);
    return TCMU_STATUS_CHECK_CONDITION;
}

int SetSense(uint8_t* sense, SenseCode code) {
    return tcmu_set_sense_data(sense, code.key, code.ascAscq);
}
