#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "connector/ConnectorWorld.h"
#include "connector/FileApiRecords.h"
#include "store/LocalChangeJournal.h"

namespace tarnwell::testing {

/// A connector with local changes, and the file API of a service that takes them. What comes is noted in
/// order: "create a.txt", "chunk 0+10", "rename b.txt", "catchup s1".
class JournalFixture : public ::testing::Test {
  protected:
    JournalFixture();

    /// A new item with its Create, made as the drive makes it.
    TWVirtualFilePtr create(const std::string& name, std::string_view contents,
                            const TWVirtualFilePtr& folder = nullptr, const std::string& shareId = "s1");
    TWVirtualFilePtr createFolder(const std::string& name, const TWVirtualFilePtr& folder = nullptr);
    /// Other contents for a file, with the Update.
    void write(const TWVirtualFilePtr& file, std::string_view contents);
    void rename(const TWVirtualFilePtr& file, const std::string& name,
                const TWVirtualFilePtr& folder = nullptr);

    /// Lets virtual time pass, with everything that is due in it.
    void pass(std::chrono::milliseconds time);
    /// Until what was changed just now is due.
    void passDelay() { pass(std::chrono::milliseconds(5100)); }
    /// What came to the service since the last call.
    std::vector<std::string> takeRequests() { return std::exchange(requests_, {}); }
    /// The journal: "create a.txt", with "*" behind what was begun and "+N" for N seconds until it is due.
    [[nodiscard]] std::vector<std::string> journal() const;
    [[nodiscard]] LocalJournalPtr firstEntry() const;
    [[nodiscard]] std::vector<std::string> uploadCopies() const;

    static UrlReply code(int responseCode, const std::string& name = "");

    ConnectorWorld world;
    ManagedSharePtr share;
    /// Answers in the place of the service where it has one; asked with the noted text.
    std::function<std::optional<UrlReply>(const std::string&)> fault;
    TWFileJournalEvent lastEvent;
    std::vector<std::string> timeouts;        // of chunk requests, in seconds
    std::map<std::string, std::string> sent;  // bytes by token

  private:
    UrlReply answer(const UrlRequest& request);
    UrlReply answerEvent(const UrlRequest& request);
    UrlReply answerChunk(const UrlRequest& request);
    UrlReply note(const std::string& text, const std::function<UrlReply()>& normally);

    std::vector<std::string> requests_;
    std::map<std::string, std::int64_t> sizes_;  // by token
};

}  // namespace tarnwell::testing
