#pragma once

#include <string_view>

namespace tarnwell::service {

/// The service's log: lines on standard error, each written at once, with the time (UTC) in front. Control
/// characters are replaced, so that no peer can forge a line. Nothing secret may be passed in. Any thread.
class ServiceLog {
  public:
    /// A quiet log leaves out info lines.
    explicit ServiceLog(bool quiet = false) : quiet_(quiet) {}
    void info(std::string_view text) const {
        if (!quiet_) write(text);
    }
    void warning(std::string_view text) const { write(text); }

  private:
    static void write(std::string_view text);
    const bool quiet_;
};

}  // namespace tarnwell::service
