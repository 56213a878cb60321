#pragma once

#include <string>

/// One line of targetcli's lists, as it prints them where no terminal tells a width: dots fill what
/// the text and its description in brackets leave of 132 columns, and may be none.
std::string ListLine(const std::string& text, const std::string& description);
