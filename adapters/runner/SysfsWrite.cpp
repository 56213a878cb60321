#include "adapters/runner/SysfsWrite.h"

#include <fcntl.h>

#include <cerrno>

#include "adapters/framework/UniqueFd.h"

int SysfsWrite(const std::filesystem::path& path, std::string_view value) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.Valid())
        return errno;
    const ssize_t written = write(file.Get(), value.data(), value.size());
    if (written < 0)
        return errno;
    return static_cast<size_t>(written) == value.size() ? 0 : EIO;
}
