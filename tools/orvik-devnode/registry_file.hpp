#pragma once

#include <sys/types.h>

#include <cstddef>
#include <ctime>
#include <memory>
#include <stdexcept>
#include <string>

namespace orvikdev {

// Why a registry file could not be used; what() names the file and the rule.
class RegistryFileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The registry file whose bytes answer registry requests. Only a regular file
// of at most `limit` bytes is read, and reading never waits: a FIFO, a device
// or a directory is refused without being read. A file whose inode, size and
// times are the same as at the last read is not read again.
class RegistryFile {
public:
    RegistryFile(std::string path, std::size_t limit);

    // The file's bytes as they are now. Throws RegistryFileError when the file
    // cannot be opened or breaks a rule, std::bad_alloc when there is no
    // memory for it.
    std::shared_ptr<const std::string> read();

private:
    struct Version {
        dev_t device = 0;
        ino_t inode = 0;
        off_t size = -1;
        timespec modified{};
        timespec changed{};

        bool operator==(const Version& other) const;
    };

    std::string _path;
    std::size_t _limit;
    Version _version;
    std::shared_ptr<const std::string> _bytes;
};

}  // namespace orvikdev
