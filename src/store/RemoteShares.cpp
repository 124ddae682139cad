// The shares that the service lists, and the names they get on the drive.

#include <algorithm>
#include <map>
#include <utility>

#include "store/CacheLayout.h"
#include "store/RemoteChanges.h"
#include "store/TWMetadataStorage.h"
#include "util/Format.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

/// Undoes percent-escaping. A text that is not escaped ASCII is left as it is.
std::string percentUnescaped(const std::string& text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            const int high = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
            const int low = high >= 0 ? hexValue(text[i + 2]) : -1;
            if (low < 0 || high > 7) return text;
            c = static_cast<char>(high * 16 + low);
            i += 2;
        }
        result += c;
    }
    return result;
}

/// The service's name of a share as one path component.
std::string baseName(const ManagedShare& share) {
    std::string name = CacheLayout::fixInvalidCharacters(share.ShareName.value_or(""));
    std::replace(name.begin(), name.end(), '\0', '_');
    if (name.empty() || name == "." || name == "..") name += '_';
    return name;
}

}  // namespace

/// One login reply of a domain. REQUIRES LOCK throughout.
class RemoteChanges::SharesMerge {
  public:
    SharesMerge(TWMetadataStorage& store, std::string domainId, std::string url);

    void apply(const ManagedSharePtr& incoming);
    /// Deletes what was not listed.
    void finish();

  private:
    void update(const ManagedSharePtr& incoming, const ManagedSharePtr& stored);
    void add(const ManagedSharePtr& incoming);
    [[nodiscard]] std::string freeName(const std::string& base) const;

    TWMetadataStorage& store_;
    const std::string domainId_, url_;
    std::map<std::string, ManagedSharePtr> unlisted_;
};

RemoteChanges::SharesMerge::SharesMerge(TWMetadataStorage& store, std::string domainId, std::string url)
    : store_(store), domainId_(std::move(domainId)), url_(std::move(url)) {
    for (const auto& share : store_.shares()) {
        if (share->DomainId == domainId_) unlisted_.emplace(*share->ShareId, share);
    }
}

void RemoteChanges::SharesMerge::apply(const ManagedSharePtr& incoming) {
    const std::string id = incoming->ShareId.value_or("");
    if (id.empty() || store_.fileWithId(id)) {
        TWLog(kLogMain, "Warning! Share %@ ignored, it has no id of its own.",
              incoming->ShareName.value_or(""));
        return;
    }
    incoming->CreationDate = incoming->ModificationDate = store_.clock().now();
    if (incoming->ShareAcl && incoming->ShareAcl->AclToken) {
        incoming->ShareAcl->AclToken = percentUnescaped(*incoming->ShareAcl->AclToken);
    }
    incoming->DomainId = domainId_;
    incoming->GateWayUrl = url_;
    if (const auto stored = store_.shareWithId(id); stored && stored != incoming) {
        unlisted_.erase(id);
        update(incoming, stored);
    } else if (!stored) {
        add(incoming);
    }
}

void RemoteChanges::SharesMerge::update(const ManagedSharePtr& incoming, const ManagedSharePtr& stored) {
    incoming->TransmitCounter = stored->TransmitCounter;
    incoming->LastApplyedJournalTick = stored->LastApplyedJournalTick;
    incoming->Synchronize = stored->Synchronize;
    const std::string oldName = stored->DisplayName.value_or("");
    if (incoming->ShareName == stored->ShareName && !oldName.empty()) {
        incoming->DisplayName = oldName;
    } else {
        const std::string name = baseName(*incoming);
        const bool ownName = oldName.empty() || oldName == baseName(*stored);
        // Out of the table while names are tried: a share never collides with itself.
        store_.index_.removeShare(*stored->ShareId);
        incoming->DisplayName = freeName(ownName ? name : format("%@ (%@)", oldName, name));
        store_.noteEntryChanged("", oldName);
        TWLog(kLogMain, "Share %@ renamed remotely - renaming to %@.", oldName, *incoming->DisplayName);
    }
    store_.insertShare(incoming);
}

void RemoteChanges::SharesMerge::add(const ManagedSharePtr& incoming) {
    incoming->LastApplyedJournalTick = -1;
    incoming->TransmitCounter = 0;
    incoming->DisplayName = freeName(baseName(*incoming));
    TWLog(kLogMain, "Adding new share - %@. Local name will be %@", incoming->ShareName.value_or(""),
          *incoming->DisplayName);
    store_.insertShare(incoming);
    store_.createFolderForShare(*incoming);
    store_.keptFiles().shareIsBack(*incoming->ShareId, "/" + *incoming->DisplayName);
}

std::string RemoteChanges::SharesMerge::freeName(const std::string& base) const {
    std::string name = base;
    for (int number = 2; store_.shareWithPath("/" + name); ++number) {
        name = format("%@ (%d)", base, number);
    }
    return name;
}

void RemoteChanges::SharesMerge::finish() {
    for (const auto& [id, share] : unlisted_) {
        TWLog(kLogMain, "Share %@ deleted remotely - cleaning up all share data.",
              share->DisplayName.value_or(""));
        store_.deleteShareData(share);
    }
}

void RemoteChanges::updateShares(const std::vector<ManagedSharePtr>& managedShares,
                                 const UserDomain& forDomain) {
    const auto& domain = forDomain.Domain;
    if (!domain || domain->DomainId.value_or("").empty()) {
        TWLog(kLogMain, "Warning! The shares of a domain without id are ignored.");
        return;
    }
    const ShutdownBlock block(store_);
    // Most of the work for the disk is done before the lock is held.
    for (const auto& share : store_.shares()) {
        const bool listed =
            std::any_of(managedShares.begin(), managedShares.end(),
                        [&](const ManagedSharePtr& each) { return each && each->ShareId == share->ShareId; });
        if (share->DomainId == domain->DomainId && !listed)
            (void)store_.unsentContents().keepOfShare(*share->ShareId, kShareGone);
    }
    const auto lock = store_.beginWriteStorage();
    SharesMerge merge(store_, *domain->DomainId, domain->Url.value_or(""));
    for (const auto& share : managedShares) {
        if (share) merge.apply(share);
    }
    merge.finish();
    store_.saveDelayed();
}

void RemoteChanges::deleteDomainShares(const std::vector<std::string>& domainIds) {
    const auto isGone = [&](const ManagedShare& share) {
        return !share.DomainId ||
               std::find(domainIds.begin(), domainIds.end(), *share.DomainId) == domainIds.end();
    };
    for (const auto& share : store_.shares()) {
        if (isGone(*share)) (void)store_.unsentContents().keepOfShare(*share->ShareId, kShareGone);
    }
    const auto lock = store_.beginWriteStorage();
    for (const auto& share : store_.shares()) {
        if (!isGone(*share)) continue;
        TWLog(kLogMain, "Deleting share %@ data since it is not in user domains anymore.",
              share->DisplayName.value_or(""));
        store_.deleteShareData(share);
    }
}

}  // namespace tarnwell
