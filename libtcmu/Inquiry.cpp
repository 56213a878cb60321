#include "libtcmu/Inquiry.h"

#include <algorithm>
#include <array>
#include <string_view>

#include "libtcmu/Answer.h"
#include "libtcmu/Cdb.h"
#include "libtcmu/Sense.h"
#include "libtcmu/libtcmu.h"

namespace {

// A handler stamps its own identity over vendor, product and revision.
constexpr std::string_view kVendor = "LIO-ORG ";
constexpr std::string_view kProduct = "TCMU device     ";
constexpr std::string_view kRevision = "1.0 ";

void StandardData(Answer& answer) {
    answer.Byte(0x00);  // connected, direct access block device
    answer.Byte(0x00);  // not removable
    answer.Byte(0x06);  // SPC-4
    answer.Byte(0x02);  // response data format; no NACA
    answer.Byte(96 - 5);
    answer.Zeros(2);    // no protection, no target port groups, no third-party copy
    answer.Byte(0x02);  // CMDQUE
    answer.Text(kVendor);
    answer.Text(kProduct);
    answer.Text(kRevision);
    answer.Zeros(22);
    for (const uint16_t standard : {0x00A0, 0x0460, 0x04C0, 0x0960})
        answer.Be16(standard);  // SAM-5, SPC-4, SBC-3, iSCSI
    answer.Zeros(96 - answer.Length());
}

void UnitSerialNumber(const InquiryFacts& facts, Answer& answer) {
    answer.Text(facts.serial.empty() ? std::string_view("    ") : facts.serial);
}

/// The NAA designator that the kernel gives file and block LUNs, by the same rule: 6, the company
/// 001405, then the first 25 hexadecimal digits found in the serial.
std::array<uint8_t, 16> NaaDesignator(std::string_view serial) {
    std::array<uint8_t, 16> naa = {0x60, 0x01, 0x40, 0x50};
    size_t nibble = 7;
    for (const char c : serial) {
        uint8_t digit = 0;
        if (c >= '0' && c <= '9')
            digit = static_cast<uint8_t>(c - '0');
        else if ((c | 0x20) >= 'a' && (c | 0x20) <= 'f')
            digit = static_cast<uint8_t>((c | 0x20) - 'a' + 10);
        else
            continue;
        naa.at(nibble / 2) |= nibble % 2 == 0 ? static_cast<uint8_t>(digit << 4U) : digit;
        if (++nibble == 2 * naa.size())
            break;
    }
    return naa;
}

/// The T10 vendor identification comes first: a handler stamps its vendor at bytes 8 to 15.
void DeviceIdentification(const InquiryFacts& facts, Answer& answer) {
    const std::string_view serial =
        std::string_view(facts.serial).substr(0, UINT8_MAX - kVendor.size());
    answer.Byte(0x02);  // ASCII
    answer.Byte(0x01);  // of the logical unit; T10 vendor identification
    answer.Byte(0x00);
    answer.Byte(static_cast<uint8_t>(kVendor.size() + serial.size()));
    answer.Text(kVendor);
    answer.Text(serial);
    if (facts.serial.empty())
        return;  // an NAA of nothing would be the same for every LUN

    const auto naa = NaaDesignator(facts.serial);
    answer.Byte(0x01);  // binary
    answer.Byte(0x03);  // of the logical unit; NAA
    answer.Byte(0x00);
    answer.Byte(naa.size());
    answer.Bytes(naa.data(), naa.size());
}

void BlockLimits(const InquiryFacts& facts, Answer& answer) {
    constexpr uint32_t kPage = 4096;  // the unit of the data area
    answer.Zeros(2);                  // no WRITE SAME, no COMPARE AND WRITE
    answer.Be16(static_cast<uint16_t>(std::max(kPage / std::max(facts.blockSize, 1U), 1U)));
    answer.Be32(facts.maxTransferBlocks);
    answer.Be32(facts.maxTransferBlocks);  // and as good as any
    answer.Zeros(0x3C - (answer.Length() - 4));
}

void BlockDeviceCharacteristics(const InquiryFacts& /*facts*/, Answer& answer) {
    answer.Zeros(0x3C);  // rotation rate and form factor not reported
}

void LogicalBlockProvisioning(const InquiryFacts& /*facts*/, Answer& answer) {
    answer.Zeros(4);  // fully provisioned; no unmapping of any kind
}

void SupportedPages(const InquiryFacts& facts, Answer& answer);

struct Page {
    uint8_t code;
    bool needsSerial;
    void (*build)(const InquiryFacts& facts, Answer& answer);
};

constexpr std::array<Page, 6> kPages = {{
    {0x00, false, SupportedPages},
    {0x80, true, UnitSerialNumber},
    {0x83, true, DeviceIdentification},
    {0xB0, false, BlockLimits},
    {0xB1, false, BlockDeviceCharacteristics},
    {0xB2, false, LogicalBlockProvisioning},
}};

void SupportedPages(const InquiryFacts& /*facts*/, Answer& answer) {
    for (const Page& page : kPages)
        answer.Byte(page.code);
}

const Page* FindPage(uint8_t code) {
    const auto* page =
        std::find_if(kPages.begin(), kPages.end(), [&](const Page& p) { return p.code == code; });
    return page == kPages.end() ? nullptr : page;
}

bool AsksForVpd(const uint8_t* cdb) {
    return (cdb[1] & 0x01U) != 0;
}

}  // namespace

bool InquiryNeedsSerial(const uint8_t* cdb) {
    const Page* page = FindPage(cdb[2]);
    return AsksForVpd(cdb) && page != nullptr && page->needsSerial;
}

int EmulateInquiry(const InquiryFacts& facts, const uint8_t* cdb, iovec* iov, size_t iovCnt,
                   uint8_t* sense) {
    const bool commandSupportData = (cdb[1] & 0x02U) != 0;  // obsolete
    Answer answer;
    if (AsksForVpd(cdb)) {
        const Page* page = FindPage(cdb[2]);
        if (page == nullptr || commandSupportData)
            return SetSense(sense, Sense::kInvalidFieldInCdb);
        answer.Byte(0x00);
        answer.Byte(page->code);
        answer.Be16(0);
        page->build(facts, answer);
        answer.SetBe16(2, answer.Length() - 4);
    } else {
        if (cdb[2] != 0 || commandSupportData)
            return SetSense(sense, Sense::kInvalidFieldInCdb);
        StandardData(answer);
    }
    return SendAnswer(answer, LoadBe16(cdb + 3), iov, iovCnt);
}
