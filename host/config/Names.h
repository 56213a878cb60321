#pragma once

#include <string>

/// Which texts may travel through a shell, through targetcli, which sees every command line in
/// lower case, and through configfs. Thread: any.

/// Each returns what is wrong with the text and what would be right; empty when it is good.
std::string FaultOfIqn(const std::string& name);  ///< RFC 7143, 4.2.7.4
std::string FaultOfPath(const std::string& path);
std::string FaultOfSerialPrefix(const std::string& prefix);
std::string FaultOfLunName(const std::string& name);
