/**
 * Files and file descriptors.
 */
#ifndef IDENTIFICATION_FILES_H
#define IDENTIFICATION_FILES_H

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include <unistd.h>

namespace identification
{

/** Owns a file descriptor. */
class UniqueFd
{
public:
    explicit UniqueFd(int fd = -1) : mFd(fd)
    {
    }
    UniqueFd(UniqueFd&& other) noexcept : mFd(std::exchange(other.mFd, -1))
    {
    }
    UniqueFd& operator=(UniqueFd&& other) noexcept
    {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~UniqueFd()
    {
        reset();
    }

    int get() const
    {
        return mFd;
    }

    void reset()
    {
        if (mFd >= 0)
        {
            close(std::exchange(mFd, -1));
        }
    }

private:
    int mFd;
};

/**
 * Sees to it that descriptors 0 to 2 are taken, so that no file or socket opened later stands where
 * others expect the standard streams. Whichever was closed still cannot be used for its purpose.
 */
void reserveStandardDescriptors();

/** The whole file; throws InputError, without the file's name, when it is larger than `limit`. */
std::string readFile(const std::string& path, std::size_t limit);

/** Writes all the bytes. @return 0 or the errno of the failure. */
int writeAll(int fd, std::string_view bytes);

/** One line on standard error, in one piece, behind the program's name. */
void complain(const std::string& line);

/** True when both names lead to the same existing file. */
bool isSameFile(const std::string& one, const std::string& other);

/**
 * Makes `bytes` the content of the file, or leaves it as it was: a regular file, or one that does
 * not exist yet, is written beside its place and then renamed. Throws SystemError.
 */
void replaceFile(const std::string& path, std::string_view bytes);

} // namespace identification

#endif
