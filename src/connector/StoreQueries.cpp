#include "connector/StoreQueries.h"

#include "store/TWMetadataStorage.h"

namespace tarnwell {

ShareAddress shareAddress(const ManagedShare& share) {
    return {.shareId = share.ShareId.value_or(""),
            .vshareId = share.VshareId.value_or(""),
            .shareName = share.ShareName.value_or(""),
            .domainId = share.DomainId.value_or(""),
            .gateWayUrl = share.GateWayUrl.value_or(""),
            .aclToken = share.ShareAcl ? share.ShareAcl->AclToken.value_or("") : ""};
}

std::optional<ShareAddress> shareAddress(const TWMetadataStorage& store, std::string_view shareId) {
    const auto lock = store.beginReadStorage();
    const auto share = store.shareWithId(shareId);
    if (!share) return std::nullopt;
    return shareAddress(*share);
}

std::string forLog(std::string_view text) {
    constexpr std::size_t longest = 2048;
    if (text.size() <= longest) return std::string(text);
    std::size_t end = longest;
    while (end > longest - 4 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80)
        --end;
    return std::string(text.substr(0, end)) + "... (" + std::to_string(text.size()) + " bytes)";
}

std::string_view errorText(const std::string& error) {
    return error.empty() ? std::string_view("(null)") : std::string_view(error);
}

}  // namespace tarnwell
