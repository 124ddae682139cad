#include "app/StatusReport.h"

#include "util/Format.h"
#include "util/RecordMapping.h"

namespace tarnwell {

BOOST_DESCRIBE_STRUCT(ShareStatus, (),
                      (ShareId, DisplayName, LastApplyedJournalTick, TransmitCounter, Synchronize))
BOOST_DESCRIBE_STRUCT(StatusReport, (),
                      (state, mountPath, user, shares, downloadQueueLen, downloadQueueBytes, uploadQueueLen,
                       uploadQueueBytes, lastUploadSpeed, lastDownloadSpeed, lastErrors, keptFiles,
                       keptFolder))

std::string statusJson(const StatusReport& report) {
    return toJsonText(report) + "\n";
}

std::optional<std::string> statusText(std::string_view json) {
    std::string error;
    const auto report = parseRecord<StatusReport>(json, error);
    if (!report) return std::nullopt;
    std::string text = format("State:      %@\nUser:       %@\nDrive:      %@\n", report->state,
                              report->user.empty() ? "none" : report->user, report->mountPath);
    text += format("Downloads:  %d waiting (%d bytes), last %.0f bytes/s\n", report->downloadQueueLen,
                   report->downloadQueueBytes, report->lastDownloadSpeed);
    text += format("Uploads:    %d waiting (%d bytes), last %.0f bytes/s\n", report->uploadQueueLen,
                   report->uploadQueueBytes, report->lastUploadSpeed);
    text += format("Shares:     %d\n", report->shares.size());
    for (const auto& share : report->shares) {
        text += format("  %@ (tick %d%@%@)\n", share.DisplayName, share.LastApplyedJournalTick,
                       share.Synchronize ? ", kept locally" : "",
                       share.TransmitCounter > 0 ? ", in transfer" : "");
    }
    if (report->keptFiles > 0) {
        text += format("Kept:       %d files that the service has not got, in %@\n", report->keptFiles,
                       report->keptFolder);
    }
    for (const auto& line : report->lastErrors)
        text += "Error:      " + line + "\n";
    return text;
}

}  // namespace tarnwell
