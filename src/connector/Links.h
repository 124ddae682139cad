#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "connector/ClientApiRecords.h"
#include "connector/ConnectorEnvironment.h"
#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"

namespace tarnwell {

class ConnectorSession;
class TaskGate;
class UrlOpener;
struct UrlReply;

/// Links into the web client: one that logs the user in, for his browser, and public ones to files and
/// folders.
///
/// A failure is logged and ends the flow: no browser opens, no handler is called. Links are as good as
/// passwords for what they open, and never logged.
///
/// Threads: any; returns at once. The browser is opened and handlers are called on the main thread.
class Links {
  public:
    Links(const ConnectorEnvironment& environment, ConnectorSession& session, TaskGate& gate)
        : environment_(environment), session_(session), gate_(gate) {}

    /// Null: no browser can be opened. `opener` outlives this or is taken back.
    void setUrlOpener(UrlOpener* opener) { opener_ = opener; }

    void openWebClient();
    /// Null: where a new share is made.
    void openShareInWebClient(const ManagedSharePtr& share);
    /// Opens the web client, logged in by a link that works once and for a minute.
    void openWebClientFor(int function, const std::string& withParam);
    /// A permanent link to a file or folder for anybody who has it.
    void createFilePublicLink(const TWVirtualFilePtr& file,
                              std::function<void(const std::string&)> creationHandler);

    /// The text, filled up with zero bytes to whole blocks, encrypted and in base64; none when that failed.
    [[nodiscard]] static std::optional<std::string> encryptDirectLink(std::string_view text,
                                                                      std::span<const unsigned char> withKey);

  private:
    void openDirectLink(const std::string& linkId);

    const ConnectorEnvironment& environment_;
    ConnectorSession& session_;
    TaskGate& gate_;
    std::atomic<UrlOpener*> opener_{nullptr};
};

}  // namespace tarnwell
