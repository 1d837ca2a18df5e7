#pragma once

#include <filesystem>
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

    const std::filesystem::path& Directory() const { return directory_; }

private:
    std::filesystem::path directory_;
};

}  // namespace velmora
