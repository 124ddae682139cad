#include "service/ServiceLog.h"

#include <unistd.h>

#include <chrono>
#include <string>

#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {
constexpr std::size_t kLongestLine = 500;
}

void ServiceLog::write(std::string_view text) {
    const auto now = std::chrono::floor<TickDuration>(std::chrono::system_clock::now());
    std::string line = JSONObjectFromNSDate(now) + " ";
    for (const char c : text.substr(0, kLongestLine)) {
        line += static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
    }
    line += '\n';
    // One call per line keeps the lines of threads and of several processes apart. A closed log is no reason
    // to stop.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

}  // namespace tarnwell::service
