#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tarnwell {

/// What the client is doing, as `tarnwell status` shows it. Field names are the keys of its JSON form and are
/// stable.
struct ShareStatus {
    std::string ShareId;
    std::string DisplayName;
    std::int32_t LastApplyedJournalTick = 0;
    std::int32_t TransmitCounter = 0;
    bool Synchronize = false;
};

struct StatusReport {
    /// "starting", "loggedOut", "connecting", "online", "offline" or "terminating".
    std::string state;
    std::string mountPath;
    std::string user;  ///< empty: nobody is logged in
    std::vector<ShareStatus> shares;
    std::int64_t downloadQueueLen = 0;
    std::int64_t downloadQueueBytes = 0;
    std::int64_t uploadQueueLen = 0;
    std::int64_t uploadQueueBytes = 0;
    double lastUploadSpeed = 0;    ///< bytes per second
    double lastDownloadSpeed = 0;  ///< bytes per second
    std::vector<std::string> lastErrors;
    std::int64_t keptFiles = 0;  ///< files in the folder of kept files
    std::string keptFolder;      ///< empty when there are none
};

std::string statusJson(const StatusReport& report);
/// The report for people, from its JSON form; none when `json` is not one.
std::optional<std::string> statusText(std::string_view json);

}  // namespace tarnwell
