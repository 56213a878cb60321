#include "tools/targetcli/ListLine.h"

namespace {

constexpr size_t kColumns = 132;
constexpr size_t kAround = 4;  // a blank on either side of the dots, and the brackets

}  // namespace

std::string ListLine(const std::string& text, const std::string& description) {
    const size_t taken = text.size() + description.size() + kAround;
    const std::string dots(taken < kColumns ? kColumns - taken : 0, '.');
    return text + " " + dots + " [" + description + "]\n";
}
