#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "store/TWVirtualFile.h"

/// What the connector announces through the NotificationCenter, all of it on the main thread. The type's name
/// is the notification's name.
namespace tarnwell {

/// A login began: credentials are there and are being tried.
struct TWConnectorGlobalLoginStarted {};
/// The user is known to the service; the domains are not logged in to yet.
struct TWConnectorGlobalLoggedIn {};
/// Every domain has answered, or failed to.
struct TWConnectorDomainsLoggedIn {};
/// The service could not be asked, or gave an answer that is none. Worth another try later.
struct TWConnectorGlobalConnectionFailed {
    std::optional<std::string> error;  ///< the transport's or the parser's words, where there are any
};
/// The service refused this user or device. Another try with the same credentials is of little use.
struct TWConnectorGlobalLoginFailed {};
struct TWConnectorGlobalLoggedOut {};
/// The service ordered that everything of the user goes. The log-out follows.
struct TWConnectorWipeOrdered {};

/// `total` and `queue` are `downloadQueueBytes` and `downloadQueueLen` at the moment of the notification.
struct TWConnectorFileDownloadStarted {
    TWVirtualFilePtr file;
    std::int64_t total = 0;
    std::int64_t queue = 0;
};
struct TWConnectorFileDownloadProgress {
    TWVirtualFilePtr file;
    std::int64_t progress = 0;  ///< bytes of the file that are here
    std::int64_t total = 0;
    std::int64_t queue = 0;
};
/// The download ended: whole, failed or cancelled.
struct TWConnectorFileDownloadFinished {
    TWVirtualFilePtr file;
    std::int64_t total = 0;
    std::int64_t queue = 0;
    std::optional<std::string> error;  ///< on failure
};

/// `file` is a copy of the record as the change left it; `total` and `queue` are `uploadQueueBytes` and
/// `uploadQueueLen`.
struct TWConnectorFileUploadStarted {
    TWVirtualFilePtr file;
    std::int64_t total = 0;
    std::int64_t queue = 0;
};
struct TWConnectorFileUploadProgress {
    TWVirtualFilePtr file;
    std::int64_t progress = 0;  ///< bytes that the service acknowledged
    std::int64_t total = 0;
    std::int64_t queue = 0;
};
/// The upload ended: the service has the contents, or it failed for now or for good.
struct TWConnectorFileUploadFinished {
    TWVirtualFilePtr file;
    std::int64_t total = 0;
    std::int64_t queue = 0;
    bool error = false;
};

}  // namespace tarnwell
