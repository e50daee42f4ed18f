#include "files.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>

#include "failures.h"
#include "text.h"

namespace identification
{

namespace
{

int openRetrying(const std::string& path, int flags, mode_t mode = 0)
{
    int fd;
    do
    {
        fd = open(path.c_str(), flags | O_CLOEXEC, mode);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

[[noreturn]] void refuseOutput(const std::string& path, int error)
{
    throw SystemError(printable(path) + ": cannot be written: " + errorText(error));
}

/** The file that `path` leads to when it is a link; links to nothing are left as they are. */
std::string resolved(const std::string& path)
{
    const std::unique_ptr<char, decltype(&std::free)> target(realpath(path.c_str(), nullptr),
                                                             &std::free);
    return target == nullptr ? path : std::string(target.get());
}

/** A new file beside `path` that nobody else has; removed again unless it is renamed. */
class TemporaryFile
{
public:
    TemporaryFile(const std::string& path, mode_t mode)
    {
        const std::size_t slash = path.rfind('/');
        const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
        const std::string stem = folder + ".identification-" + std::to_string(getpid()) + '-';
        constexpr int attempts = 100;
        for (int i = 0; i < attempts; ++i)
        {
            mName = stem + std::to_string(i);
            mFd = UniqueFd(openRetrying(mName, O_WRONLY | O_CREAT | O_EXCL, mode));
            if (mFd.get() >= 0)
            {
                return;
            }
            if (errno != EEXIST)
            {
                break;
            }
        }
        mName.clear();
        refuseOutput(path, errno);
    }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    ~TemporaryFile()
    {
        if (!mName.empty())
        {
            unlink(mName.c_str());
        }
    }

    int fd() const
    {
        return mFd.get();
    }

    bool renameTo(const std::string& path)
    {
        if (rename(mName.c_str(), path.c_str()) != 0)
        {
            return false;
        }
        mName.clear();
        return true;
    }

private:
    std::string mName;
    UniqueFd mFd;
};

} // namespace

void reserveStandardDescriptors()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd)
    {
        if (fcntl(fd, F_GETFD) < 0)
        {
            // Opened the wrong way round on purpose: using it fails as it did when it was closed.
            const int flags = fd == STDIN_FILENO ? O_WRONLY : O_RDONLY;
            if (open("/dev/null", flags) != fd) // NOLINT: stays open until the process ends
            {
                _exit(kSystem);
            }
        }
    }
}

std::string readFile(const std::string& path, std::size_t limit)
{
    const UniqueFd file(openRetrying(path, O_RDONLY));
    if (file.get() < 0)
    {
        throw InputError("cannot be read: " + errorText(errno));
    }
    std::string content;
    std::array<char, 65536> piece{};
    for (;;)
    {
        const ssize_t count = read(file.get(), piece.data(), piece.size());
        if (count == 0)
        {
            return content;
        }
        if (count > 0)
        {
            content.append(piece.data(), static_cast<std::size_t>(count));
            if (content.size() > limit)
            {
                throw InputError("is larger than " + std::to_string(limit) + " bytes");
            }
        }
        else if (errno != EINTR)
        {
            throw InputError("cannot be read: " + errorText(errno));
        }
    }
}

int writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty())
    {
        const ssize_t count = write(fd, bytes.data(), bytes.size());
        if (count >= 0)
        {
            bytes.remove_prefix(static_cast<std::size_t>(count));
        }
        else if (errno != EINTR)
        {
            return errno;
        }
    }
    return 0;
}

void complain(const std::string& line)
{
    writeAll(STDERR_FILENO, "identification: " + line + '\n');
}

bool isSameFile(const std::string& one, const std::string& other)
{
    struct stat first = {};
    struct stat second = {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

void replaceFile(const std::string& path, std::string_view bytes)
{
    struct stat existing = {};
    const bool exists = stat(path.c_str(), &existing) == 0;
    if (exists && !S_ISREG(existing.st_mode))
    {
        // Devices and pipes are written where they stand.
        const UniqueFd device(openRetrying(path, O_WRONLY));
        const int error = device.get() < 0 ? errno : writeAll(device.get(), bytes);
        if (error != 0)
        {
            refuseOutput(path, error);
        }
        return;
    }

    constexpr mode_t readableAndWritable = 0666;
    const std::string target = exists ? resolved(path) : path;
    TemporaryFile file(target, readableAndWritable);
    const int error = writeAll(file.fd(), bytes);
    if (error != 0)
    {
        refuseOutput(path, error);
    }
    if ((exists && fchmod(file.fd(), existing.st_mode & 07777U) != 0) || !file.renameTo(target))
    {
        refuseOutput(path, errno);
    }
}

} // namespace identification
