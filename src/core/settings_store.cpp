#include "core/settings_store.h"

#include <nlohmann/json.hpp>
#include <sqlite3.h>

namespace velmora {
namespace {

enum StoredType : int { kInt32 = 1, kBool = 2, kText = 3, kStringMap = 4 };

std::string EncodeMap(const StringMap& map) { return nlohmann::json(map).dump(); }

StringMap DecodeMap(const std::string& text) {
    StringMap map;
    auto json = nlohmann::json::parse(text, nullptr, false);
    if (!json.is_object()) return map;
    for (const auto& [key, value] : json.items()) {
        if (value.is_string()) map[key] = value.get<std::string>();
    }
    return map;
}

}  // namespace

SettingsStore::SettingsStore(const std::filesystem::path& directory, const Logger& log) {
    const auto path = directory / kFileName;
    try {
        Open(path.string());
        persistent_ = true;
    } catch (const SettingsError& e) {
        log.Error("Config - Unable to open local settings at %s (%s); settings last only for this run",
                  path.string().c_str(), e.what());
        Close();
        Open(":memory:");
    }
}

SettingsStore::~SettingsStore() { Close(); }

void SettingsStore::Open(const std::string& target) {
    int rc = sqlite3_open_v2(target.c_str(), &db_,
                             SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX, nullptr);
    Check(rc, "open");
    sqlite3_busy_timeout(db_, 5000);
    // WAL keeps every committed write through a crash of the process, at a fraction of the cost.
    Check(sqlite3_exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr, nullptr),
          "configure");
    Check(sqlite3_exec(db_,
                       "CREATE TABLE IF NOT EXISTS settings ("
                       " key TEXT PRIMARY KEY NOT NULL, type INTEGER NOT NULL, value) WITHOUT ROWID",
                       nullptr, nullptr, nullptr),
          "create table");
    Check(sqlite3_prepare_v2(db_, "SELECT type, value FROM settings WHERE key = ?1", -1, &select_, nullptr),
          "prepare");
    Check(sqlite3_prepare_v2(db_, "INSERT OR REPLACE INTO settings (key, type, value) VALUES (?1, ?2, ?3)", -1,
                             &upsert_, nullptr),
          "prepare");
    Check(sqlite3_prepare_v2(db_, "DELETE FROM settings WHERE key = ?1", -1, &delete_, nullptr), "prepare");
}

void SettingsStore::Close() {
    sqlite3_finalize(select_);
    sqlite3_finalize(upsert_);
    sqlite3_finalize(delete_);
    select_ = upsert_ = delete_ = nullptr;
    sqlite3_close_v2(db_);  // none: a no-op
    db_ = nullptr;
}

void SettingsStore::Check(int rc, const char* what) {
    if (rc == SQLITE_OK || rc == SQLITE_DONE || rc == SQLITE_ROW) return;
    std::string message = std::string(what) + ": ";
    message += db_ != nullptr ? sqlite3_errmsg(db_) : sqlite3_errstr(rc);
    throw SettingsError(message);
}

void SettingsStore::Checkpoint() {
    MutexLock lock(mutex_);
    if (persistent_) sqlite3_wal_checkpoint_v2(db_, nullptr, SQLITE_CHECKPOINT_TRUNCATE, nullptr, nullptr);
}

bool SettingsStore::HasKey(const std::string& key) { return Lookup(key).has_value(); }

std::optional<SettingValue> SettingsStore::Lookup(const std::string& key) {
    MutexLock lock(mutex_);
    sqlite3_reset(select_);
    sqlite3_bind_text(select_, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    int rc = sqlite3_step(select_);
    if (rc == SQLITE_DONE) return std::nullopt;
    Check(rc, "read");
    const int type = sqlite3_column_int(select_, 0);
    std::optional<SettingValue> value;
    switch (type) {
        case kInt32: value = static_cast<std::int32_t>(sqlite3_column_int(select_, 1)); break;
        case kBool: value = sqlite3_column_int(select_, 1) != 0; break;
        case kText:
        case kStringMap: {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(select_, 1));
            std::string s(text != nullptr ? text : "", static_cast<std::size_t>(sqlite3_column_bytes(select_, 1)));
            if (type == kText) value = std::move(s); else value = DecodeMap(s);
            break;
        }
        default: break;  // a type this version does not know reads as absent
    }
    sqlite3_reset(select_);
    return value;
}

void SettingsStore::Insert(const std::string& key, const SettingValue& value) {
    MutexLock lock(mutex_);
    sqlite3_reset(upsert_);
    sqlite3_bind_text(upsert_, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    std::string text;
    std::visit(
        [&](const auto& v) {
            mutex_.AssertHeld();  // std::visit calls it within this function's lock
            using T = std::decay_t<decltype(v)>;
            if constexpr (std::is_same_v<T, std::int32_t>) {
                sqlite3_bind_int(upsert_, 2, kInt32);
                sqlite3_bind_int(upsert_, 3, v);
            } else if constexpr (std::is_same_v<T, bool>) {
                sqlite3_bind_int(upsert_, 2, kBool);
                sqlite3_bind_int(upsert_, 3, v ? 1 : 0);
            } else if constexpr (std::is_same_v<T, std::string>) {
                sqlite3_bind_int(upsert_, 2, kText);
                sqlite3_bind_text(upsert_, 3, v.data(), static_cast<int>(v.size()), SQLITE_TRANSIENT);
            } else {
                text = EncodeMap(v);
                sqlite3_bind_int(upsert_, 2, kStringMap);
                sqlite3_bind_text(upsert_, 3, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
            }
        },
        value);
    int rc = sqlite3_step(upsert_);
    sqlite3_reset(upsert_);
    Check(rc, "write");
}

void SettingsStore::Remove(const std::string& key) {
    MutexLock lock(mutex_);
    sqlite3_reset(delete_);
    sqlite3_bind_text(delete_, 1, key.data(), static_cast<int>(key.size()), SQLITE_TRANSIENT);
    int rc = sqlite3_step(delete_);
    sqlite3_reset(delete_);
    Check(rc, "remove");
}

std::optional<std::string> LookupText(SettingsStore& store, const std::string& key) {
    auto value = store.Lookup(key);
    if (value && std::holds_alternative<std::string>(*value)) return std::get<std::string>(*value);
    return std::nullopt;
}

std::optional<std::int32_t> LookupInt32(SettingsStore& store, const std::string& key) {
    auto value = store.Lookup(key);
    if (value && std::holds_alternative<std::int32_t>(*value)) return std::get<std::int32_t>(*value);
    return std::nullopt;
}

std::optional<bool> LookupBool(SettingsStore& store, const std::string& key) {
    auto value = store.Lookup(key);
    if (value && std::holds_alternative<bool>(*value)) return std::get<bool>(*value);
    return std::nullopt;
}

}  // namespace velmora
