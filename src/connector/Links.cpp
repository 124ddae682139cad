#include "connector/Links.h"

#include <utility>

#include "connector/ClientApi.h"
#include "connector/ConnectorSession.h"
#include "connector/DirectLinkKey.h"
#include "connector/StoreQueries.h"
#include "connector/TaskGate.h"
#include "connector/UrlUtil.h"
#include "platform/Clock.h"
#include "platform/RunLoop.h"
#include "platform/UrlLoader.h"
#include "platform/UrlOpener.h"
#include "store/TWMetadataStorage.h"
#include "util/Cipher.h"
#include "util/Format.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace {

constexpr int kWebClientFunction = 2;
constexpr std::size_t kBlock = 16;
/// Seconds between the time stamps' origin and 1970.
constexpr double kTimeStampOffset = 11676009472;
constexpr double kTicksPerSecond = 10'000'000;

/// The messages of the two flows.
struct Lines {
    const char *parse, *refused, *failed;
};
constexpr Lines kWebClientLines{
    "Failed to parse reply for web client DirectLink request: %@",
    "Error in web client DirectLink request: %@",
    "Failed to receive reply for web client DirectLink request. HTTP status code: %d."};
constexpr Lines kPublicLinkLines{
    "Failed to parse reply for file or folder sharing DirectLink request: %@",
    "Error in file or foldersharing DirectLink request: %@",
    "Failed to receive reply for file or folder sharing DirectLink request. HTTP status code: %d."};

/// The id of the link that was made; none for a failure, which is logged.
std::optional<std::string> linkIdOf(const UrlReply& reply, const Lines& lines) {
    if (!reply.succeeded() || reply.body.empty()) {
        TWLog(kLogMain, lines.failed, reply.status);
        return std::nullopt;
    }
    std::string error;
    const auto responce = parseRecord<CreateDirectLinkResponce>(reply.body, error);
    if (!responce) {
        TWLog(kLogMain, lines.parse, error);
        return std::nullopt;
    }
    if (!responce->ResponceMessage.starts_with(kClientApiOk) || !responce->LinkId) {
        TWLog(kLogMain, lines.refused, forLog(responce->ResponceMessage));
        return std::nullopt;
    }
    return responce->LinkId;
}

struct PrimaryDomain {
    std::string url, token;
};

std::optional<PrimaryDomain> primaryDomain(const ConnectorSession& session) {
    const auto login = session.globalLoginResponce();
    if (!login || !login->PrimaryUserDomain || !login->PrimaryUserDomain->Domain) return std::nullopt;
    const auto& domain = *login->PrimaryUserDomain;
    if (!isHostAddress(domain.Domain->Url.value_or(""))) return std::nullopt;
    return PrimaryDomain{*domain.Domain->Url, domain.UserDomainToken.value_or("")};
}

}  // namespace

void Links::openWebClient() {
    openWebClientFor(kWebClientFunction, "*LOGIN");
}

void Links::openShareInWebClient(const ManagedSharePtr& share) {
    std::string parameter = "*NEWSHARE";
    if (share) {
        const auto lock = environment_.store.beginReadStorage();
        parameter = share->ShareId.value_or("");
    }
    openWebClientFor(kWebClientFunction, parameter);
}

void Links::openWebClientFor(int function, const std::string& withParam) {
    TWLog(kLogMain, "Opening Web client for function %d with param %@...", function, withParam);
    const auto domain = primaryDomain(session_);
    if (!domain) {
        TWLog(kLogMain, kWebClientLines.failed, 0);
        return;
    }
    const double seconds =
        static_cast<double>(environment_.clock.now().time_since_epoch().count()) / kTicksPerSecond;
    ShareAShareToken token;
    token.A = session_.username();
    token.B = session_.password();
    token.C = withParam;
    token.D = format("%.0f", (seconds + kTimeStampOffset) * kTicksPerSecond);
    const RequestCommand command{.Token = domain->token,
                                 .UserId = token.A,
                                 .Method = "CreateDirectLink",
                                 .DeviceId = session_.deviceId(),
                                 .Ip = ""};
    const CreateDirectLinkRequest request{
        .LinkType = kLinkWebClient, .MinutesExpire = 1, .MaxUse = 1, .JsonData = toJsonText(token)};
    environment_.urlLoader.sendAsynchronously(
        endpoints::webClientLink(domain->url, toJsonText(command), toJsonText(request)),
        environment_.background, gate_.guard([this](const UrlReply& reply) {
            if (const auto linkId = linkIdOf(reply, kWebClientLines)) openDirectLink(*linkId);
        }));
}

void Links::openDirectLink(const std::string& linkId) {
    const auto domain = primaryDomain(session_);
    if (!domain) return;
    const auto encrypted = encryptDirectLink(
        toJsonText(DirectLinkUrl{
            .DomainToken = domain->token, .DirectLinkId = linkId, .UserId = session_.username()}),
        kDirectLinkKey);
    if (!encrypted) return;
    const auto address = endpoints::webClientAddress(domain->url, UrlUtil::encodeValue(*encrypted));
    environment_.mainLoop.async(gate_.guard([this, address] {
        auto* opener = opener_.load();
        if (!opener || !opener->openUrl(address)) TWLog(kLogMain, "Warning! Cannot open the web client.");
    }));
}

std::optional<std::string> Links::encryptDirectLink(std::string_view text,
                                                    std::span<const unsigned char> withKey) {
    std::string blocks(text);
    blocks.resize((text.size() + kBlock - 1) / kBlock * kBlock, '\0');
    unsigned long error = 0;
    const auto encrypted = encryptAes256Cbc(blocks, withKey, kDirectLinkVector, error);
    if (!encrypted) {
        TWLog(kLogMain, "Failed to encrypted direct link data: error %d", error);
        return std::nullopt;
    }
    return base64Encode(*encrypted);
}

void Links::createFilePublicLink(const TWVirtualFilePtr& file,
                                 std::function<void(const std::string&)> creationHandler) {
    ShareFileToken2 token;
    std::optional<Domain> domain;
    bool isFile = true;
    {
        const auto lock = environment_.store.beginReadStorage();
        TWLog(kLogMain, "Creating the file public link for file %@...", file->PublicName);
        isFile = file->IsFile;
        token.A = file->InternalName.str();
        token.B = file->ShareId.str();
        if (const auto share = shareAddress(environment_.store, token.B)) {
            token.C = share->vshareId;
            token.D = share->aclToken;
            domain = session_.domainWithId(share->domainId);
        }
    }
    token.E = session_.username();
    const std::string url = domain ? domain->Url.value_or("") : "";
    if (!isHostAddress(url)) {
        TWLog(kLogMain, kPublicLinkLines.failed, 0);
        return;
    }
    RequestCommand command;
    command.Token = token.D;
    command.UserId = token.E;
    command.Method = "CreateDirectLink";
    // Both tokens have the same keys.
    const CreateDirectLinkRequest request{.LinkType = isFile ? kLinkFile : kLinkFolder,
                                          .MinutesExpire = kLinkUnlimited,
                                          .MaxUse = kLinkUnlimited,
                                          .JsonData = toJsonText(token)};
    environment_.urlLoader.sendAsynchronously(
        endpoints::publicLink(url, toJsonText(command), toJsonText(request)), environment_.background,
        gate_.guard([this, url, isFile, handler = std::move(creationHandler)](const UrlReply& reply) {
            const auto linkId = linkIdOf(reply, kPublicLinkLines);
            if (!linkId) return;
            const auto address = endpoints::publicLinkAddress(url, isFile, percentEscapes(*linkId));
            environment_.mainLoop.async(gate_.guard([handler, address] { handler(address); }));
        }));
}

}  // namespace tarnwell
