#pragma once

#include "core/log.h"
#include "core/mutex.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <variant>

struct sqlite3;
struct sqlite3_stmt;

namespace velmora {

// One stored value keeps its type: a 32-bit integer, a boolean, a text, or a map of texts.
using SettingValue = std::variant<std::int32_t, bool, std::string, StringMap>;

class SettingsError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The local-settings container: a typed key-value store in one SQLite database. Every write is
// committed before it returns, so a second process (or a later run) reads what this one wrote.
// Operations throw SettingsError when the database fails; callers handle it at their module's edge.
class SettingsStore {
public:
    static constexpr const char* kFileName = "VelmoraSettings.db";

    // Opens (or creates) the database in `directory`. When that fails, logs one error line naming
    // the path and keeps the values in memory for this process only.
    SettingsStore(const std::filesystem::path& directory, const Logger& log);
    virtual ~SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    virtual bool HasKey(const std::string& key) EXCLUDES(mutex_);
    virtual std::optional<SettingValue> Lookup(const std::string& key) EXCLUDES(mutex_);
    virtual void Insert(const std::string& key, const SettingValue& value) EXCLUDES(mutex_);  // insert or replace
    virtual void Remove(const std::string& key) EXCLUDES(mutex_);

    // Moves what the write-ahead log holds into the database file and empties the log, so that the
    // ".db" file alone holds every value: the normal end of the process.
    void Checkpoint() EXCLUDES(mutex_);

    bool Persistent() const { return persistent_; }

private:
    // The constructor and destructor call these without the lock: no other thread sees the store yet
    // (or any more).
    void Open(const std::string& target) REQUIRES(mutex_);
    void Check(int rc, const char* what) REQUIRES(mutex_);
    void Close() REQUIRES(mutex_);

    // The prepared statements are shared, so each use, from reset to the last column read, is
    // under the lock.
    Mutex mutex_;
    sqlite3* db_ GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* select_ GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* upsert_ GUARDED_BY(mutex_) = nullptr;
    sqlite3_stmt* delete_ GUARDED_BY(mutex_) = nullptr;
    bool persistent_ = false;  // set by the constructor only
};

// Typed readers for the usual cases; a missing key or a value of another type gives nullopt.
std::optional<std::string> LookupText(SettingsStore& store, const std::string& key);
std::optional<std::int32_t> LookupInt32(SettingsStore& store, const std::string& key);
std::optional<bool> LookupBool(SettingsStore& store, const std::string& key);

}  // namespace velmora
