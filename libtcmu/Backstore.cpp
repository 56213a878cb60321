#include "libtcmu/Backstore.h"

#include <cerrno>
#include <sstream>

#include "framework/SmallFile.h"

std::filesystem::path BackstoreOf(const std::filesystem::path& uioClass,
                                  const std::filesystem::path& core, const std::string& uioName) {
    std::istringstream text(ReadSmallFile(uioClass / uioName / "name").value_or(""));
    std::string kind;
    std::string hba;
    std::string name;
    std::getline(text, kind, '/');
    std::getline(text, hba, '/');
    std::getline(text, name, '/');
    if (kind != "tcm-user" || hba.empty() || name.empty())
        return {};
    return core / ("user_" + hba) / name;
}

int ReadSerial(const std::filesystem::path& backstore, std::string& serial) {
    constexpr std::string_view kLabel = "T10 VPD Unit Serial Number: ";
    const auto text = ReadSmallFile(backstore / "wwn/vpd_unit_serial");
    if (!text)
        return -errno;
    const std::string line = text->substr(0, text->find('\n'));
    if (!line.starts_with(kLabel))
        return -EIO;
    serial = line.substr(kLabel.size());
    return 0;
}
