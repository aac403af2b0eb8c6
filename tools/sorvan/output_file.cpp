#include "output_file.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace sorvan::cli {
namespace {

std::string lastError() {
    return std::strerror(errno);
}

bool writeAll(int fd, std::span<const std::uint8_t> bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            if (n == 0) {
                errno = EIO;
            }
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

// Read where the kernel shows it: setting it to learn it would open a window in which the
// kit's threads create files with no mask at all.
mode_t currentUmask() {
    if (std::FILE* status = std::fopen("/proc/self/status", "re")) {
        char line[256];
        unsigned mask = 0;
        bool found = false;
        while (!found && std::fgets(line, sizeof line, status)) {
            found = std::sscanf(line, "Umask: %o", &mask) == 1;
        }
        std::fclose(status);
        if (found) {
            return static_cast<mode_t>(mask);
        }
    }
    mode_t mask = ::umask(022);
    ::umask(mask);
    return mask;
}

// Into what is there (a device, a pipe): the only way to write to it at all.
// create: what a dangling link names is made, as a shell's redirection would.
std::optional<std::string> writeThrough(const std::string& path,
                                        std::span<const std::uint8_t> bytes, bool create = false) {
    int fd = ::open(path.c_str(),
                    O_WRONLY | O_CLOEXEC | O_NOCTTY | (create ? O_CREAT | O_TRUNC : 0), 0666);
    if (fd < 0) {
        return lastError();
    }
    bool ok = writeAll(fd, bytes);
    std::string why = ok ? std::string() : lastError();
    if (::close(fd) != 0 && ok) {
        ok = false;
        why = lastError();
    }
    return ok ? std::nullopt : std::optional<std::string>(why);
}

// Beside the target and renamed over it, so the file is either the old one or the new one.
// mode: the old file's, or nullopt for a new file (0666 less the umask, as a shell would).
std::optional<std::string> replaceAtomically(const std::string& target,
                                             std::span<const std::uint8_t> bytes,
                                             std::optional<mode_t> mode) {
    std::filesystem::path path(target);
    std::string temporary = path.has_parent_path() ? path.parent_path().string() : ".";
    temporary += "/." + path.filename().string() + ".XXXXXX";
    int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        return lastError();
    }
    if (!mode) {
        mode = 0666 & ~currentUmask();
    }
    bool ok = writeAll(fd, bytes) && ::fchmod(fd, *mode) == 0;
    std::string why = ok ? std::string() : lastError();
    if (::close(fd) != 0 && ok) {
        ok = false;
        why = lastError();
    }
    if (ok && ::rename(temporary.c_str(), target.c_str()) != 0) {
        ok = false;
        why = lastError();
    }
    if (!ok) {
        ::unlink(temporary.c_str());
        return why;
    }
    return std::nullopt;
}

}  // namespace

std::optional<std::string> writeOutputFile(const std::string& path,
                                           std::span<const std::uint8_t> bytes) {
    std::string target = path;
    struct stat info {};
    if (::lstat(path.c_str(), &info) == 0 && S_ISLNK(info.st_mode)) {
        // The link stays; what it names gets the picture.
        std::error_code error;
        std::filesystem::path resolved = std::filesystem::canonical(path, error);
        if (error) {
            return writeThrough(path, bytes, true);  // dangling: made through the link
        }
        target = resolved.string();
    }
    if (::stat(target.c_str(), &info) != 0) {
        if (errno != ENOENT) {
            return lastError();
        }
        return replaceAtomically(target, bytes, std::nullopt);
    }
    if (S_ISREG(info.st_mode)) {
        return replaceAtomically(target, bytes, info.st_mode & 07777);
    }
    if (S_ISCHR(info.st_mode) || S_ISFIFO(info.st_mode) || S_ISSOCK(info.st_mode)) {
        return writeThrough(target, bytes);
    }
    if (S_ISDIR(info.st_mode)) {
        return std::string("is a directory");
    }
    return std::string("is a block device: refusing to write over it");
}

std::optional<std::string> finishStandardOutput() {
    errno = 0;
    bool failed = std::fflush(stdout) != 0;
    int flushError = errno;
    if (!failed && !std::ferror(stdout)) {
        return std::nullopt;
    }
    // ferror() alone keeps no errno: a write that failed earlier is known only as an error.
    return flushError != 0 ? std::strerror(flushError) : std::string("a write failed");
}

}  // namespace sorvan::cli
