#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "connector/LoginRecords.h"
#include "connector/OSXCatchUpResponse.h"
#include "service/HttpsClient.h"
#include "service/Service.h"
#include "support/TemporaryFolder.h"

namespace tarnwell::service::testing {

/// A data folder with two domains, "Alpha" at alpha.localhost and "Beta" at beta.localhost, and on demand a
/// server on it inside this process.
///
/// Users: anna@alpha.test (password "anna's"), ben@beta.test ("ben's"). Shares: "Docs" in Alpha, granted to
/// anna for writing; "Plans" in Beta, granted to ben.
class ServiceWorld : public ::testing::Test {
  protected:
    ServiceWorld();
    ~ServiceWorld() override;

    void serve(ServerOptions options = {});
    void stop();
    MetadataStore& metadata() { return data_->metadata(); }

    /// Imports a new file with these contents into a share; its record.
    TWVirtualFilePtr addFile(const ShareInfo& share, const std::string& name, const std::string& contents);
    /// One transaction on a share.
    void change(const ShareInfo& share, const std::function<void(ShareChange&)>& work) {
        metadata().change(share.id, work);
    }

    struct Login {
        std::shared_ptr<GlobalLoginResponce> reply;
        std::string token;  ///< of the primary domain
    };
    /// A login at a domain's gateway; `deviceId` empty asks for a new one.
    Login login(const std::string& domain, const std::string& email, const std::string& password,
                const std::string& deviceId = "");
    HttpsReply loginReply(const std::string& host, const std::string& path, const std::string& email,
                          const std::string& password, const std::string& deviceId = "");
    HttpsReply sharesReply(const std::string& domain, const std::string& email, const std::string& token);
    /// The user's share tokens in a domain, by share name, after a login with a new device.
    std::map<std::string, std::string> shareTokens(const std::string& domain, const std::string& email,
                                                   const std::string& password);
    HttpsReply catchUpReply(const std::string& domain, const std::string& shareId, const std::string& token,
                            const std::string& from, const std::string& take = "10000");
    HttpsReply readReply(const std::string& domain, const std::string& token, const std::string& name,
                         const std::string& position, const std::string& count);

    tarnwell::testing::TemporaryFolder folder_;
    ServiceLog log_{true};
    std::unique_ptr<ServiceData> data_;
    std::unique_ptr<Service> service_;
    std::unique_ptr<HttpsClient> client_;
    DomainInfo alpha_, beta_;
    UserInfo anna_, ben_;
    ShareInfo docs_, plans_;
};

}  // namespace tarnwell::service::testing
