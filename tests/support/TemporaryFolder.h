#pragma once

#include <string>
#include <string_view>

namespace tarnwell::testing {

/// A new empty folder (mode 0700), removed with all that is in it at the end of the scope.
class TemporaryFolder {
  public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    [[nodiscard]] const std::string& path() const { return path_; }
    /// The absolute path of a name in the folder; nothing is created.
    [[nodiscard]] std::string path(std::string_view name) const { return path_ + "/" + std::string(name); }
    /// Creates or replaces the file, with the folders on the way. Returns its absolute path.
    std::string write(std::string_view name, std::string_view contents) const;
    /// The file's bytes. Throws std::runtime_error when it cannot be read.
    [[nodiscard]] std::string read(std::string_view name) const;
    [[nodiscard]] bool exists(std::string_view name) const;

  private:
    std::string path_;
};

}  // namespace tarnwell::testing
