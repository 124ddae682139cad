#include "support/LogCapture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "util/TWLogger.h"

namespace tarnwell::testing {

LogCapture::LogCapture() {
    TWInitLogs(folder_.path());
}

LogCapture::~LogCapture() {
    TWClose();
}

std::vector<std::string> LogCapture::lines() const {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(folder_.path()))
        files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    std::vector<std::string> lines;
    for (const auto& file : files) {
        std::ifstream in(file);
        for (std::string line; std::getline(in, line);)
            lines.push_back(line);
    }
    return lines;
}

std::size_t LogCapture::count(std::string_view text) const {
    const auto all = lines();
    return static_cast<std::size_t>(std::count_if(all.begin(), all.end(), [&](const std::string& line) {
        return line.find(text) != std::string::npos;
    }));
}

std::string LogCapture::text() const {
    std::string joined;
    for (const auto& line : lines())
        joined += line + "\n";
    return joined;
}

}  // namespace tarnwell::testing
