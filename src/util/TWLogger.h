#pragma once

#include <string>
#include <string_view>

#include "util/Format.h"
#include "util/LogFiles.h"

/// The process's one log: LogFiles of the Logs folder, reached from everywhere.
namespace tarnwell {

/// Where a line goes. The program logs at main and fuse only; lines of other levels reach no file.
enum TWLogLevel : int { kLogMain = 0, kLogFuse = 1, kLogDebug = 2 };

/// Writes one line, "[thread] date : message". Any thread, may be called with any lock held (the logger's
/// lock is the innermost of all and nothing is called under it but the sink and the files). Never throws. A
/// line is in the kernel when this returns: it survives a crash of the process. Line breaks of `message`
/// stay, other control characters are escaped; before TWInitLogs() and after TWClose() the message goes to
/// the system log.
void TWLogText(int level, std::string_view message);

/// The same with arguments, whose own line breaks are escaped: see formatLogText().
template <class... T>
void TWLog(int level, std::string_view text, const T&... arguments) {
    TWLogText(level, formatLogText(text, {FormatArgument(arguments)...}));
}

/// First opening at start-up: the day's files in `logDirectory`, which must exist. Kept for later reopenings.
void TWInitLogs(const std::string& logDirectory);
/// (Re)opens the day's files, then TWCleanupLogs().
void TWOpenLogs();
/// Deletes files ending in ".log" older than 14 days by modification time. Errors are ignored.
void TWCleanupLogs();
/// Closes both files; later lines go to the system log until TWOpenLogs().
void TWClose();
/// The folder given to TWInitLogs().
std::string TWLogDir();

/// Copies each line to the log window; an empty sink ends that. The sink is called under the logger's lock:
/// it hands the line to its own thread and returns.
void setLogToGUI(LogFiles::Sink sink);
/// What the log window puts before a line of that level: "[Main] ".
std::string_view logLevelTag(int level);

}  // namespace tarnwell
