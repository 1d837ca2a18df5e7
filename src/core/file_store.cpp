#include "core/file_store.h"

#include "core/descriptor.h"

#include <sys/stat.h>

#include <fstream>
#include <sstream>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <system_error>
#include <unistd.h>

namespace velmora {
namespace {

[[noreturn]] void Fail(const char* what, const std::filesystem::path& path, int error) {
    throw std::runtime_error(std::string(what) + " " + path.string() + ": " + std::strerror(error));
}

constexpr const char* kTemporaryMarker = ".tmp";  // "<name>.tmp<pid>-<n>"

// A process killed while it saved leaves its temporary file behind. The owner reads its file once,
// at start, and then clears what processes that no longer run left; a temporary file of a process
// that still runs (another instance of the application) may be about to be renamed and stays.
void RemoveAbandonedTemporaries(const std::filesystem::path& directory, const std::string& name) {
    const std::string prefix = name + kTemporaryMarker;
    std::error_code error;
    for (std::filesystem::directory_iterator it(directory, error), end; !error && it != end; it.increment(error)) {
        const std::string file = it->path().filename().string();
        if (file.compare(0, prefix.size(), prefix) != 0) continue;
        const long pid = std::strtol(file.c_str() + prefix.size(), nullptr, 10);
        if (pid <= 0 || pid == ::getpid()) continue;
        if (::kill(static_cast<pid_t>(pid), 0) != 0 && errno == ESRCH) ::unlink(it->path().c_str());
    }
}

// The file open for reading, or no descriptor when it did not exist and was created empty. Either
// way the temporaries that crashed writers left beside it are gone afterwards.
Descriptor OpenOrCreate(const std::filesystem::path& directory, const std::string& name) {
    const auto path = directory / name;
    Descriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd) {
        if (errno != ENOENT) Fail("Cannot open", path, errno);
        Descriptor created(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644));
        if (!created) Fail("Cannot create", path, errno);
    }
    RemoveAbandonedTemporaries(directory, name);
    return fd;
}

}  // namespace

FileStore::FileStore(std::filesystem::path directory) : directory_(std::move(directory)) {}

std::string FileStore::Read(const std::string& name) {
    const auto path = directory_ / name;
    Descriptor fd = OpenOrCreate(directory_, name);
    if (!fd) return {};
    // Read straight into a string of the file's size: a queue file of several megabytes is not
    // copied through a growing buffer. The size is a hint; a file that grows meanwhile is read whole.
    struct stat info {};
    ::fstat(fd.get(), &info);  // left zeroed when it fails: no hint
    std::string text(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t length = 0;
    for (;;) {
        if (length == text.size()) text.resize(text.size() + 65536);
        const ssize_t n = ::read(fd.get(), &text[length], text.size() - length);
        if (n < 0) {
            if (errno == EINTR) continue;
            Fail("Cannot read", path, errno);
        }
        if (n == 0) break;
        length += static_cast<std::size_t>(n);
    }
    text.resize(length);
    return text;
}

std::unique_ptr<std::istream> FileStore::OpenForReading(const std::string& name) {
    const auto path = directory_ / name;
    if (!OpenOrCreate(directory_, name)) return std::make_unique<std::istringstream>();
    auto stream = std::make_unique<std::ifstream>(path, std::ios::binary);
    if (!*stream) Fail("Cannot open", path, errno);
    return stream;
}

Descriptor FileStore::OpenForUpdate(const std::string& name) {
    const auto path = directory_ / name;
    Descriptor fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (!fd) Fail("Cannot open", path, errno);
    RemoveAbandonedTemporaries(directory_, name);
    return fd;
}

void FileStore::WriteAtomic(const std::string& name, std::string_view text) {
    Replace(name, [&text](int fd) { WriteAll(fd, text.data(), text.size()); });
}

void FileStore::WriteAll(int fd, const char* data, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            throw std::system_error(errno, std::generic_category());
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

void FileStore::Replace(const std::string& name, const std::function<void(int fd)>& fill, bool sync) {
    static std::atomic<unsigned> counter{0};
    const auto path = directory_ / name;
    auto temp = path;
    temp += kTemporaryMarker + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1));
    Descriptor fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (!fd) Fail("Cannot create", temp, errno);
    auto discard = [&](const char* what, int error) {  // the descriptor closes as the exception leaves
        ::unlink(temp.c_str());
        Fail(what, temp, error);
    };
    try {
        fill(fd.get());
    } catch (const std::system_error& e) {
        discard("Cannot write", e.code().value());
    } catch (...) {
        ::unlink(temp.c_str());
        throw;
    }
    if (sync && ::fdatasync(fd.get()) != 0) discard("Cannot sync", errno);
    if (::close(fd.release()) != 0) {
        int error = errno;
        ::unlink(temp.c_str());
        Fail("Cannot close", temp, error);
    }
    if (::rename(temp.c_str(), path.c_str()) != 0) {
        int error = errno;
        ::unlink(temp.c_str());
        Fail("Cannot replace", path, error);
    }
}

}  // namespace velmora
