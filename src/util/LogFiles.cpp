#include "util/LogFiles.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <exception>

#include "util/Format.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::time_t kKeepSeconds = std::time_t{14} * 86400;

/// Control characters must not reach a terminal that shows the log; the message's own line breaks may stay.
void appendMessage(std::string_view message, std::string& out) {
    while (!message.empty()) {
        const auto end = message.find_first_of("\n\t");
        appendEscaped(message.substr(0, end), out);
        if (end == std::string_view::npos) break;
        out += message[end];
        message.remove_prefix(end + 1);
    }
    out += '\n';
}

std::string dayPrefix(const std::tm& day) {
    return format("%04d-%02d-%02d-", day.tm_year + 1900, day.tm_mon + 1, day.tm_mday);
}

/// "2026-11-15 15:40:41 +0000"
std::string dateText(std::time_t time) {
    std::tm utc{};
    gmtime_r(&time, &utc);
    return format("%04d-%02d-%02d %02d:%02d:%02d +0000", utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                  utc.tm_hour, utc.tm_min, utc.tm_sec);
}

}  // namespace

/// An open file or, when opening failed, none.
class LogFiles::File {
  public:
    explicit File(const std::string& path)
        : descriptor_(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600)),
          error_(descriptor_ < 0 ? errno : 0) {}
    ~File() {
        if (descriptor_ >= 0) ::close(descriptor_);
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    [[nodiscard]] int error() const { return error_; }
    /// False when there is no file to write to. A full disk loses the line, by design.
    [[nodiscard]] bool write(std::string_view line) const {
        if (descriptor_ < 0) return false;
        [[maybe_unused]] const auto written = ::write(descriptor_, line.data(), line.size());
        return true;
    }

  private:
    int descriptor_;
    int error_;
};

LogFiles::Environment LogFiles::Environment::system() {
    return {[] { return ::time(nullptr); },
            [](std::string_view message) {
                ::syslog(LOG_USER | LOG_NOTICE, "%.*s", static_cast<int>(message.size()), message.data());
            }};
}

LogFiles::LogFiles(Environment environment) : environment_(std::move(environment)) {}
LogFiles::~LogFiles() = default;

void LogFiles::init(const std::string& directory) {
    {
        const std::scoped_lock lock(mutex_);
        directory_ = directory;
    }
    open();
}

void LogFiles::open() {
    {
        const std::scoped_lock lock(mutex_);
        openLocked();
    }
    cleanup();
}

void LogFiles::openLocked() {
    closeLocked();
    const std::time_t now = environment_.now();
    std::tm day{};
    localtime_r(&now, &day);
    day.tm_hour = day.tm_min = day.tm_sec = 0;
    day.tm_isdst = -1;
    const std::string prefix = directory_ + "/" + dayPrefix(day);
    // Both midnights from the calendar: a day has 23 or 25 hours when the clock is put forward or back.
    std::tm next = day;
    ++next.tm_mday;
    firstTime_ = mktime(&day);
    lastTime_ = mktime(&next);
    main_ = std::make_unique<File>(prefix + "main.log");
    if (main_->error()) {
        environment_.systemLog(format("Warning! Failed to open main log file : error %d", main_->error()));
    }
    fuse_ = std::make_unique<File>(prefix + "fuse.log");
    if (fuse_->error()) {
        environment_.systemLog(format("Warning! Failed to open fuse log file : error %d", fuse_->error()));
    }
    open_ = true;
}

void LogFiles::close() {
    const std::scoped_lock lock(mutex_);
    closeLocked();
}

void LogFiles::closeLocked() {
    main_.reset();
    fuse_.reset();
    open_ = false;
}

std::string LogFiles::directory() const {
    const std::scoped_lock lock(mutex_);
    return directory_;
}

void LogFiles::cleanup() const {
    const std::time_t cutoff = environment_.now() - kKeepSeconds;
    const std::unique_ptr<DIR, int (*)(DIR*)> folder(::opendir(directory().c_str()), ::closedir);
    if (!folder) return;
    while (const dirent* entry = ::readdir(folder.get())) {
        struct stat status {};
        if (std::string_view(entry->d_name).ends_with(".log") &&
            ::fstatat(::dirfd(folder.get()), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            status.st_mtime < cutoff) {
            ::unlinkat(::dirfd(folder.get()), entry->d_name, 0);
        }
    }
}

void LogFiles::write(int level, std::string_view message) {
    thread_local const pid_t thread = ::gettid();
    bool rotated = false;
    {
        const std::scoped_lock lock(mutex_);
        std::time_t now = environment_.now();
        std::string line = format("[%d] %@ : ", thread, dateText(now));
        const std::size_t prefixSize = line.size();
        appendMessage(message, line);

        const bool lost = level != kLogMain && level != kLogFuse;
        const auto& file = level == kLogFuse ? fuse_ : main_;
        if (!lost && (!file || !file->write(line))) {
            environment_.systemLog(std::string_view(line).substr(prefixSize));
        }
        copyToSink(level, line);

        now = environment_.now();
        if (open_ && (now >= lastTime_ || now < firstTime_)) {
            openLocked();
            rotated = true;
        }
    }
    if (rotated) cleanup();
}

void LogFiles::copyToSink(int level, std::string_view line) {
    if (!sink_ || inSink_) return;  // what the sink itself logs is written, not shown
    inSink_ = true;
    const auto sink = sink_;
    try {
        (*sink)(level, line);
    } catch (const std::exception& error) {
        environment_.systemLog(format("Warning! The log window failed : error %@", error.what()));
    }
    inSink_ = false;
}

void LogFiles::setSink(Sink sink) {
    const std::scoped_lock lock(mutex_);
    sink_ = sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr;
}

}  // namespace tarnwell
