// MODE SENSE and MODE SELECT (SPC-4, 6.11 to 6.14 and 7.5; SBC-3, 6.5). Nothing can be changed, so
// the current values are the default ones, and MODE SELECT accepts what says the same.
#include <array>
#include <cstring>

#include "libtcmu/Answer.h"
#include "libtcmu/Cdb.h"
#include "libtcmu/Iovec.h"
#include "libtcmu/Sense.h"
#include "libtcmu/libtcmu.h"

namespace {

constexpr uint8_t kAllPages = 0x3F;
constexpr uint8_t kAllSubpages = 0xFF;

/// Every page in full, in ascending order. The page's length stands in its second byte.
struct Page {
    std::array<uint8_t, 20> bytes;

    uint8_t Code() const { return bytes[0]; }
    size_t Length() const { return size_t{2} + bytes[1]; }
};

constexpr std::array<Page, 3> kPages = {{
    // Caching: the write cache is off, because the host writes through.
    {{0x08, 0x12}},
    // Control: descriptor sense off; nothing is logged implicitly; commands are reordered freely;
    // aborted tasks get TASK ABORTED (the kernel's default); busy for any time.
    {{0x0A, 0x0A, 0x02, 0x10, 0x00, 0x40, 0x00, 0x00, 0xFF, 0xFF}},
    // Informational exceptions: disabled.
    {{0x1C, 0x0A, 0x08}},
}};

const Page* FindPage(uint8_t code) {
    for (const Page& page : kPages) {
        if (page.Code() == code)
            return &page;
    }
    return nullptr;
}

enum class PageControl : uint8_t { kCurrent, kChangeable, kDefault, kSaved };

void PutPage(const Page& page, PageControl control, Answer& answer) {
    if (control == PageControl::kChangeable) {
        answer.Bytes(page.bytes.data(), 2);
        answer.Zeros(page.Length() - 2);  // no bit can be changed
    } else {
        answer.Bytes(page.bytes.data(), page.Length());
    }
}

/// Header of the parameter data. No block descriptor is given, which the standard leaves open.
void PutHeader(bool six, Answer& answer) {
    constexpr uint8_t kDpoFua = 0x10;  // every write is durable
    if (six) {
        answer.Zeros(2);
        answer.Byte(kDpoFua);
        answer.Zeros(1);
    } else {
        answer.Zeros(3);
        answer.Byte(kDpoFua);
        answer.Zeros(4);
    }
}

/// Checks the pages of a parameter list against ours.
/// Returns: 0, or CHECK CONDITION with `sense` set.
int ComparePages(const uint8_t* list, size_t length, uint8_t* sense) {
    while (length > 0) {
        constexpr uint8_t kParametersSaveable = 0x80;  // reserved here
        const auto code = static_cast<uint8_t>(list[0] & ~kParametersSaveable);
        const Page* page = FindPage(code);
        if (page == nullptr)
            return SetSense(sense, Sense::kInvalidFieldInParameterList);
        if (length < 2)
            return SetSense(sense, Sense::kParameterListLengthError);
        if (list[1] != page->bytes[1])
            return SetSense(sense, Sense::kInvalidFieldInParameterList);
        if (length < page->Length())
            return SetSense(sense, Sense::kParameterListLengthError);
        if (std::memcmp(list + 2, page->bytes.data() + 2, page->Length() - 2) != 0)
            return SetSense(sense, Sense::kInvalidFieldInParameterList);
        list += page->Length();
        length -= page->Length();
    }
    return TCMU_STATUS_GOOD;
}

}  // namespace

int tcmu_emulate_mode_sense(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense) {
    const bool six = cdb[0] == Opcode::kModeSense6;
    const auto control = static_cast<PageControl>(cdb[2] >> 6U);
    const uint8_t code = cdb[2] & 0x3FU;
    const uint8_t subpage = cdb[3];

    if (control == PageControl::kSaved)
        return SetSense(sense, Sense::kSavingParametersNotSupported);
    if (subpage != 0 && subpage != kAllSubpages)
        return SetSense(sense, Sense::kInvalidFieldInCdb);

    Answer answer;
    PutHeader(six, answer);
    if (code == kAllPages) {
        for (const Page& page : kPages)
            PutPage(page, control, answer);
    } else {
        const Page* page = FindPage(code);
        if (page == nullptr)
            return SetSense(sense, Sense::kInvalidFieldInCdb);
        PutPage(*page, control, answer);
    }
    if (six)
        answer.SetByte(0, answer.Length() - 1);
    else
        answer.SetBe16(0, answer.Length() - 2);
    return SendAnswer(answer, six ? cdb[4] : LoadBe16(cdb + 7), iov, iovCnt);
}

int tcmu_emulate_mode_select(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense) {
    const bool six = cdb[0] == Opcode::kModeSelect6;
    const size_t headerLength = six ? 4 : 8;
    const size_t listLength = six ? cdb[4] : LoadBe16(cdb + 7);
    const bool pageFormat = (cdb[1] & 0x10U) != 0;
    const bool savePages = (cdb[1] & 0x01U) != 0;

    if (savePages)
        return SetSense(sense, Sense::kInvalidFieldInCdb);
    if (listLength == 0)
        return TCMU_STATUS_GOOD;  // nothing to change
    if (!pageFormat)
        return SetSense(sense, Sense::kInvalidFieldInCdb);

    // No list that is longer than all pages together can be one that changes nothing.
    std::array<uint8_t, 256> list{};
    if (listLength > list.size())
        return SetSense(sense, Sense::kInvalidFieldInParameterList);
    if (Iovec::Gather(iov, iovCnt, list.data(), listLength) < listLength)
        return SetSense(sense, Sense::kParameterListLengthError);

    const uint8_t mediumType = six ? list[1] : list[2];
    const size_t descriptors = six ? list[3] : LoadBe16(list.data() + 6);
    if (headerLength + descriptors > listLength)  // a header that is cut off, too
        return SetSense(sense, Sense::kParameterListLengthError);
    if (mediumType != 0 || descriptors != 0)  // a descriptor could set another block length
        return SetSense(sense, Sense::kInvalidFieldInParameterList);
    return ComparePages(list.data() + headerLength, listLength - headerLength, sense);
}
