#pragma once

#include <cstdint>
#include <string>

/// The names under which the plug-in makes a LUN's objects, computed beforehand so that they can be
/// compared with what configfs shows. Pure functions; thread: any.

/// The unit serial number that a create gives a LUN whose record holds `prefix`.
std::string SerialOf(const std::string& prefix, const std::string& target, const std::string& path);

/// The storage object's name: 15 characters.
std::string ObjectNameOf(const std::string& target, const std::string& path);

/// The TCMU configuration string without its handler's name.
std::string CfgStringOf(const std::string& target, const std::string& path);

/// The 25 hexadecimal digits that the kernel puts behind 6001405 in a LUN's NAA designator: those
/// found first in the serial, filled up with zeros. Two LUNs that agree in them are one disk to
/// multipath.
std::string NaaDigitsOf(const std::string& serial);

/// A size for people: "64 MiB", "1536 bytes".
std::string SizeText(uint64_t bytes);
