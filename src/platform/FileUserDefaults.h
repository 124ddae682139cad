#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/UserDefaults.h"

namespace tarnwell {

/// Settings in one text file that people may edit: "key=value" lines (docs in the file's first line).
///
/// The file is read at construction and whenever synchronize() runs; get and set work in memory. Several
/// processes may use one file: synchronize() takes a lock beside it ("<file>.lock"), reads what is there,
/// applies only what was set or removed here since the last time, and replaces the file atomically (mode
/// 0600, folder 0700).
///
/// A file with lines that make no sense is copied to "<file>.damaged" and logged before it is replaced; its
/// good lines are kept. A file that cannot be read is never replaced. Comments are not kept when the file is
/// replaced.
///
/// Threads: any. File work of one synchronize() happens at a time and holds up no get or set.
class FileUserDefaults final : public UserDefaults {
  public:
    /// `path` is absolute; a missing file or folder is an empty one and is made by the first synchronize()
    /// with changes.
    explicit FileUserDefaults(std::string path);
    /// Does not synchronize.
    ~FileUserDefaults() override;

    [[nodiscard]] std::optional<std::string> get(std::string_view key) const override;
    void set(std::string_view key, std::string_view value) override;
    void remove(std::string_view key) override;
    [[nodiscard]] std::map<std::string, std::string> all() const override;
    bool synchronize() override;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
