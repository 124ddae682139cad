#include "service/ServiceWorld.h"

#include "service/Importer.h"
#include "service/Secrets.h"
#include "service/ShareTree.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::service::testing {

namespace {

/// Hashing is slow on purpose; the same two passwords serve every test of this process.
const std::string& hashOf(const std::string& password) {
    static std::map<std::string, std::string> hashes;
    auto& hash = hashes[password];
    if (hash.empty()) hash = hashPassword(password);
    return hash;
}

}  // namespace

ServiceWorld::ServiceWorld() : data_(std::make_unique<ServiceData>(folder_.path("data"))) {
    alpha_ = metadata().addDomain("Alpha", "alpha.localhost");
    beta_ = metadata().addDomain("Beta", "Beta.localhost:8443");
    anna_ = metadata().addUser("anna@alpha.test", alpha_.id, hashOf("anna's"));
    ben_ = metadata().addUser("ben@beta.test", beta_.id, hashOf("ben's"));
    docs_ = metadata().addShare("Docs", alpha_.id);
    plans_ = metadata().addShare("Plans", beta_.id);
    metadata().grant(docs_.id, anna_.id, false);
    metadata().grant(plans_.id, ben_.id, true);
}

ServiceWorld::~ServiceWorld() = default;

void ServiceWorld::serve(ServerOptions options) {
    options.port = 0;
    service_ = std::make_unique<Service>(*data_, options, log_);
    service_->start();
    client_ = std::make_unique<HttpsClient>(data_->certificates().authority.string(), service_->port());
}

void ServiceWorld::stop() {
    client_.reset();
    service_.reset();
}

TWVirtualFilePtr ServiceWorld::addFile(const ShareInfo& share, const std::string& name,
                                       const std::string& contents) {
    const tarnwell::testing::TemporaryFolder source;
    source.write(name, contents);
    importFolder(metadata(), data_->contents(), share.id, source.path(), [](const std::string&) {});
    TWVirtualFilePtr record;
    change(share, [&](ShareChange& change) { record = itemAtPath(change, name); });
    return record;
}

HttpsReply ServiceWorld::loginReply(const std::string& host, const std::string& path,
                                    const std::string& email, const std::string& password,
                                    const std::string& deviceId) {
    return client_->get(
        host, path,
        {"useremail: " + email, "password2: " + base64Encode(password), "devicetype: Mac",
         deviceId.empty() ? "deviceid;" : "deviceid: " + deviceId, "devicename: Anna%2527s%2520Box",
         "deviceos: Mac OS X 1.2.3", "applicationversion: 1"});
}

ServiceWorld::Login ServiceWorld::login(const std::string& domain, const std::string& email,
                                        const std::string& password, const std::string& deviceId) {
    const auto http = loginReply("clientgateway." + domain, "/login2.aspx", email, password, deviceId);
    EXPECT_EQ(http.status, 200) << http.body << http.error;
    std::string error;
    Login login;
    login.reply = parseRecord<GlobalLoginResponce>(http.body, error);
    EXPECT_TRUE(login.reply) << error;
    if (login.reply && login.reply->PrimaryUserDomain) {
        login.token = login.reply->PrimaryUserDomain->UserDomainToken.value_or("");
    }
    return login;
}

HttpsReply ServiceWorld::sharesReply(const std::string& domain, const std::string& email,
                                     const std::string& token) {
    return client_->get("clientgateway." + domain,
                        "/ClientLogin.aspx?userEmail=" + email + "&token=" + token);
}

std::map<std::string, std::string> ServiceWorld::shareTokens(const std::string& domain,
                                                             const std::string& email,
                                                             const std::string& password) {
    const auto http = sharesReply(domain, email, login(domain, email, password).token);
    std::string error;
    const auto reply = parseRecord<ClientLoginResponse>(http.body, error);
    EXPECT_TRUE(reply) << http.status << " " << error;
    std::map<std::string, std::string> tokens;
    if (!reply) return tokens;
    for (const auto& share : *reply->ManagedShares)
        tokens[*share->ShareName] = *share->ShareAcl->AclToken;
    return tokens;
}

HttpsReply ServiceWorld::catchUpReply(const std::string& domain, const std::string& shareId,
                                      const std::string& token, const std::string& from,
                                      const std::string& take) {
    return client_->post("clientgateway." + domain, "/CatchUp7.aspx",
                         {"share: " + shareId, "token: " + token, "vshareId: " + shareId, "tickfrom: " + from,
                          "tickstart: " + from, "ticktake: " + take},
                         "");
}

HttpsReply ServiceWorld::readReply(const std::string& domain, const std::string& token,
                                   const std::string& name, const std::string& position,
                                   const std::string& count) {
    return client_->get("filecache01." + domain, "/read.aspx",
                        {"Token: " + token, "fileName: " + name, "position: " + position, "chunk: " + count});
}

}  // namespace tarnwell::service::testing
