#include "platform/FileUserDefaults.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>

#include "platform/PrivateFile.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

using Values = std::map<std::string, std::string, std::less<>>;

constexpr std::size_t kLargestFile = 4u << 20;
constexpr std::string_view kFirstLine =
    "# One setting a line: key=value. Backslash escapes: \\n, \\\\, \\xNN.\n";

std::string_view withoutOuterSpaces(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(" \t\r") + 1 - first);
}

/// Spaces inside are common in names and paths and stay readable; those at the ends are escaped.
std::string escapedSide(std::string_view text, std::string_view special) {
    auto out = escaped(text, special);
    if (out.ends_with(' ')) out.replace(out.size() - 1, 1, "\\x20");
    if (out.starts_with(' ')) out.replace(0, 1, "\\x20");
    return out;
}

std::string encoded(const Values& values) {
    std::string text(kFirstLine);
    for (const auto& [key, value] : values) {
        text += escapedSide(key, "=#;[") + "=" + escapedSide(value, "") + "\n";
    }
    return text;
}

/// The good lines of `text`; `damaged` counts the others.
Values decoded(std::string_view text, std::size_t& damaged) {
    Values values;
    damaged = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        const auto line = withoutOuterSpaces(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        if (line.empty() || line.front() == '#' || line.front() == ';' || line.front() == '[') continue;
        const auto equals = line.find('=');
        const auto key = unescaped(withoutOuterSpaces(line.substr(0, equals)));
        const auto value = equals == std::string_view::npos
                               ? std::nullopt
                               : unescaped(withoutOuterSpaces(line.substr(equals + 1)));
        if (!key || key->empty() || !value || line.find('\0') != std::string_view::npos)
            ++damaged;
        else
            values[*key] = *value;
    }
    return values;
}

}  // namespace

struct FileUserDefaults::State {
    /// What was done to a key here since it was last written; the number tells a later change of the same
    /// key.
    struct Change {
        std::optional<std::string> value;
        std::uint64_t number;
    };
    using Changes = std::map<std::string, Change, std::less<>>;

    const std::string path;
    std::mutex fileMutex;        // one synchronize() at a time; taken before `mutex`
    std::string reportedDamage;  // guarded by fileMutex: contents already copied and logged
    mutable std::mutex mutex;
    Values values;  // guarded by mutex, as all below
    Changes changes;
    std::uint64_t lastChange = 0;

    explicit State(std::string file) : path(std::move(file)) {}

    void change(std::string_view key, std::optional<std::string> value) {
        std::lock_guard lock(mutex);
        apply(values, key, value);
        changes.insert_or_assign(std::string(key), Change{std::move(value), ++lastChange});
    }

    static void apply(Values& values, std::string_view key, const std::optional<std::string>& value) {
        if (value)
            values.insert_or_assign(std::string(key), *value);
        else if (const auto entry = values.find(key); entry != values.end())
            values.erase(entry);
    }

    /// The file's values; none when it exists and cannot be read. REQUIRES: fileMutex.
    std::optional<Values> load() {
        const auto contents = readWholeFile(path, kLargestFile);
        if (contents.error == ENOENT) return Values();
        if (contents.error != 0) {
            TWLog(kLogMain, "Warning! Cannot read settings %@ : %@", path, std::strerror(contents.error));
            return std::nullopt;
        }
        std::size_t damaged = 0;
        auto loaded = decoded(contents.bytes, damaged);
        if (damaged > 0 && contents.bytes != reportedDamage) {
            const int error = replacePrivateFile(path + ".damaged", contents.bytes);
            TWLog(kLogMain, "Warning! Settings %@ : %@ damaged lines ignored, the file was copied to %@ (%@)",
                  path, damaged, path + ".damaged", error == 0 ? "done" : std::strerror(error));
            if (error != 0) return std::nullopt;
            reportedDamage = contents.bytes;
        }
        return loaded;
    }

    /// Memory becomes the file's values plus what changed here and is not yet written. REQUIRES: fileMutex.
    void takeOver(Values loaded, const Changes& written) {
        std::lock_guard lock(mutex);
        for (const auto& [key, done] : written) {
            const auto entry = changes.find(key);
            if (entry != changes.end() && entry->second.number == done.number) changes.erase(entry);
        }
        for (const auto& [key, pending] : changes)
            apply(loaded, key, pending.value);
        values = std::move(loaded);
    }
};

FileUserDefaults::FileUserDefaults(std::string path) : state_(std::make_unique<State>(std::move(path))) {
    std::lock_guard lock(state_->fileMutex);
    if (auto loaded = state_->load()) state_->takeOver(std::move(*loaded), {});
}

FileUserDefaults::~FileUserDefaults() = default;

std::optional<std::string> FileUserDefaults::get(std::string_view key) const {
    std::lock_guard lock(state_->mutex);
    const auto entry = state_->values.find(key);
    if (entry == state_->values.end()) return std::nullopt;
    return entry->second;
}

void FileUserDefaults::set(std::string_view key, std::string_view value) {
    state_->change(key, std::string(value));
}

void FileUserDefaults::remove(std::string_view key) {
    state_->change(key, std::nullopt);
}

std::map<std::string, std::string> FileUserDefaults::all() const {
    std::lock_guard lock(state_->mutex);
    return {state_->values.begin(), state_->values.end()};
}

bool FileUserDefaults::synchronize() {
    std::lock_guard fileLock(state_->fileMutex);
    State::Changes changes;
    {
        std::lock_guard lock(state_->mutex);
        changes = state_->changes;
    }
    if (changes.empty()) {
        // A replacement is atomic, so a reader needs no lock.
        auto loaded = state_->load();
        if (loaded) state_->takeOver(std::move(*loaded), {});
        return loaded.has_value();
    }
    if (const int error = makePrivateFolders(std::filesystem::path(state_->path).parent_path().string())) {
        TWLog(kLogMain, "Warning! Cannot make the folder of settings %@ : %@", state_->path,
              std::strerror(error));
        return false;
    }
    const auto processLock = lockBeside(state_->path);
    if (!processLock) {
        TWLog(kLogMain, "Warning! Cannot lock settings %@", state_->path);
        return false;
    }
    auto loaded = state_->load();
    if (!loaded) return false;
    const auto before = *loaded;
    for (const auto& [key, change] : changes)
        State::apply(*loaded, key, change.value);
    if (*loaded != before) {
        if (const int error = replacePrivateFile(state_->path, encoded(*loaded))) {
            TWLog(kLogMain, "Warning! Cannot write settings %@ : %@", state_->path, std::strerror(error));
            return false;
        }
    }
    state_->takeOver(std::move(*loaded), changes);
    return true;
}

}  // namespace tarnwell
