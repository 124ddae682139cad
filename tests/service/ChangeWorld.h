#pragma once

#include "connector/FileApiRecords.h"
#include "service/ServiceWorld.h"

namespace tarnwell::service::testing {

/// All but letters and digits percent-encoded.
std::string escaped(std::string_view text);

/// Two devices of anna's that change "Docs", as clients do it on the wire.
class ChangeWorld : public ServiceWorld {
  protected:
    /// One device: its share token, and what it sends.
    struct Device {
        std::string token;
        std::string share;
        std::string id = {};

        /// A new file record of this device, at the root of the share.
        [[nodiscard]] TWVirtualFile file(const std::string& name, const std::string& contents) const;
        [[nodiscard]] TWVirtualFile folder(const std::string& name, const std::string& parent = "") const;
        /// The record with other contents under a new upload name.
        [[nodiscard]] static TWVirtualFile edited(TWVirtualFile record, const std::string& contents);
    };

    void SetUp() override;
    Device device(const std::string& email = "anna@alpha.test", const std::string& password = "anna's");

    HttpsReply eventReply(const Device& device, std::int32_t type, const TWVirtualFile& record);
    TWFileJournalResponse event(const Device& device, std::int32_t type, const TWVirtualFile& record);
    HttpsReply chunkReply(const std::string& token, std::int64_t position, const std::string& bytes,
                          const std::string& hash = "", std::int64_t size = -1);
    /// The code, or minus the HTTP status.
    int chunk(const std::string& token, std::int64_t position, const std::string& bytes);
    /// Event and all chunks; "1:2" is the event's code and the last chunk's.
    std::string send(const Device& device, std::int32_t type, const TWVirtualFile& record,
                     const std::string& contents);

    /// `request` goes into its header as it is.
    HttpsReply clientApi(const std::string& token, const std::string& method, const std::string& request,
                         const std::string& path = "/clientapi.aspx");

    /// The share as catch-up and reads tell it: "path=contents", folders with a slash, sorted, one a line.
    std::string tree();
    /// The present record of an item, from catch-up.
    TWVirtualFilePtr known(std::string_view internalName);

    /// What this thread sends with: its own client where it has one.
    HttpsClient& wire() { return ownClient_ ? *ownClient_ : *client_; }
    static inline thread_local HttpsClient* ownClient_ = nullptr;

    Device one_, two_;
};

}  // namespace tarnwell::service::testing
