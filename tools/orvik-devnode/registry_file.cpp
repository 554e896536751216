#include "registry_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace orvikdev {

namespace {

// Closes the descriptor however read() leaves.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : _fd(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() {
        if (_fd >= 0) {
            ::close(_fd);
        }
    }
    int get() const { return _fd; }

private:
    int _fd;
};

}  // namespace

bool RegistryFile::Version::operator==(const Version& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec &&
           changed.tv_sec == other.changed.tv_sec && changed.tv_nsec == other.changed.tv_nsec;
}

RegistryFile::RegistryFile(std::string path, std::size_t limit)
    : _path(std::move(path)), _limit(limit) {}

std::shared_ptr<const std::string> RegistryFile::read() {
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    const FileDescriptor file(::open(_path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (file.get() < 0) {
        throw RegistryFileError("cannot read registry file " + _path + ": " + std::strerror(errno));
    }
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) {
        throw RegistryFileError("cannot read registry file " + _path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw RegistryFileError("registry file " + _path + " is not a regular file");
    }
    const std::string tooLarge = "registry file " + _path + " holds more than " +
                                 std::to_string(_limit) + " bytes (--max-registry-bytes)";
    if (static_cast<unsigned long long>(status.st_size) > _limit) {
        throw RegistryFileError(tooLarge);
    }
    const Version version{status.st_dev, status.st_ino, status.st_size, status.st_mtim,
                          status.st_ctim};
    if (_bytes && version == _version) {
        return _bytes;
    }

    // The file may grow while it is read: one byte beyond the limit is enough
    // to tell.
    std::string bytes(static_cast<std::size_t>(status.st_size) + 1, '\0');
    std::size_t filled = 0;
    while (true) {
        if (filled == bytes.size()) {
            if (bytes.size() > _limit) {
                throw RegistryFileError(tooLarge);
            }
            bytes.resize(std::min(_limit + 1, bytes.size() * 2));
        }
        const ssize_t got = ::read(file.get(), bytes.data() + filled, bytes.size() - filled);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            throw RegistryFileError("cannot read registry file " + _path + ": " +
                                    std::strerror(errno));
        }
        if (got == 0) {
            break;
        }
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    _bytes = std::make_shared<const std::string>(std::move(bytes));
    _version = version;
    return _bytes;
}

}  // namespace orvikdev
