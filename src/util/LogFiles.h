#pragma once

#include <ctime>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace tarnwell {

/// The two daily log files of one folder: "2026-11-15-main.log" and "2026-11-15-fuse.log".
///
/// A line goes to the file of its level with one write() call. Lines are due to the day in which the previous
/// line was written: after each line the clock is looked at, and past local midnight, or when it went back
/// before the day, the next day's files are opened and old ones deleted. What cannot be written to a file
/// goes to the system log.
///
/// Any thread. One lock guards all state and is held while a line is written, so lines never interleave; it
/// is recursive because the sink may log. Failures are never reported to the caller: a log line is worth no
/// error path.
class LogFiles {
  public:
    /// Copies each line to a window. Called under the lock, in the order of the lines.
    using Sink = std::function<void(int level, std::string_view line)>;

    /// What the files take from outside; tests replace both.
    struct Environment {
        std::function<std::time_t()> now;                         ///< seconds since the Unix epoch
        std::function<void(std::string_view message)> systemLog;  ///< one message, without line prefix
        static Environment system();
    };

    explicit LogFiles(Environment environment = Environment::system());
    ~LogFiles();
    LogFiles(const LogFiles&) = delete;
    LogFiles& operator=(const LogFiles&) = delete;

    /// Keeps the folder, then open().
    void init(const std::string& directory);
    /// (Re)opens the files of today, then cleanup().
    void open();
    /// Later lines go to the system log until open().
    void close();
    /// Deletes files ending in ".log" that were last written more than 14 days ago.
    void cleanup() const;
    [[nodiscard]] std::string directory() const;

    void write(int level, std::string_view message);
    /// An empty sink switches the copying off. When this returns the old sink runs no more.
    void setSink(Sink sink);

  private:
    class File;

    void openLocked();
    void closeLocked();
    void copyToSink(int level, std::string_view line);

    const Environment environment_;
    mutable std::recursive_mutex mutex_;
    // Guarded by mutex_:
    std::string directory_;
    std::unique_ptr<File> main_;
    std::unique_ptr<File> fuse_;
    bool open_ = false;
    std::time_t firstTime_ = 0;  ///< the local midnight that began the day of the files
    std::time_t lastTime_ = 0;   ///< the midnight that ends it
    std::shared_ptr<const Sink> sink_;
    bool inSink_ = false;
};

}  // namespace tarnwell
