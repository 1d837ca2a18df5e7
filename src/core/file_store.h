#pragma once

#include "core/descriptor.h"

#include <filesystem>
#include <functional>
#include <istream>
#include <memory>
#include <string>
#include <string_view>

namespace velmora {

// The local folder's data files. A write goes to a temporary file in the same directory that is
// then renamed over the old one, so a crash or a full disk leaves the previous document whole.
// Failures throw std::runtime_error with a message naming the path; owners log and go on.
class FileStore {
public:
    explicit FileStore(std::filesystem::path directory);
    virtual ~FileStore() = default;

    // The whole text of `name`; a missing file is created empty and reads as "". Temporary files of
    // `name` that killed processes left behind are removed.
    virtual std::string Read(const std::string& name);
    virtual void WriteAtomic(const std::string& name, std::string_view text);
    // As Read, but the text is read as it is consumed: a document of megabytes is parsed without
    // a copy of it in memory.
    virtual std::unique_ptr<std::istream> OpenForReading(const std::string& name);
    // A descriptor open for reading and writing, for an owner that changes its file in place; the
    // file is created empty when missing, and temporaries left by killed writers are removed, as
    // Read does.
    virtual Descriptor OpenForUpdate(const std::string& name);
    // WriteAtomic with the text written by `fill` to the temporary file's descriptor. `sync` false
    // leaves out the wait for the disk, for a document whose loss would mean the same as an empty
    // file.
    virtual void Replace(const std::string& name, const std::function<void(int fd)>& fill, bool sync = true);

    const std::filesystem::path& Directory() const { return directory_; }

    // Writes all of `data` to `fd` at its position; throws std::system_error.
    static void WriteAll(int fd, const char* data, std::size_t size);

private:
    std::filesystem::path directory_;
};

}  // namespace velmora
