#include "util/TWLogger.h"

#include <exception>

namespace tarnwell {

namespace {

/// Never destroyed: threads and static destructors may log until the very end of the process.
LogFiles& logFiles() {
    static auto* const files = new LogFiles;
    return *files;
}

}  // namespace

void TWLogText(int level, std::string_view message) {
    try {
        logFiles().write(level, message);
    } catch (const std::exception&) {
        // Out of memory while making the line: losing it is better than failing the caller.
    }
}

void TWInitLogs(const std::string& logDirectory) {
    logFiles().init(logDirectory);
}
void TWOpenLogs() {
    logFiles().open();
}
void TWCleanupLogs() {
    logFiles().cleanup();
}
void TWClose() {
    logFiles().close();
}
std::string TWLogDir() {
    return logFiles().directory();
}
void setLogToGUI(LogFiles::Sink sink) {
    logFiles().setSink(std::move(sink));
}

std::string_view logLevelTag(int level) {
    switch (level) {
        case kLogMain:
            return "[Main] ";
        case kLogFuse:
            return "[Fuse] ";
        case kLogDebug:
            return "[Debug] ";
        default:
            return "[Other] ";
    }
}

}  // namespace tarnwell
