#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "store/ManagedShare.h"
#include "store/TWVirtualFile.h"
#include "store/UserDomain.h"

namespace tarnwell {

class TWMetadataStorage;

/// Merges what the service says into the store, without losing local work. The service is the authority on
/// the tree of every share; contents that the user changed and that are not sent yet win until they are.
///
/// What arrives is not trusted: records without ids, of another share, with parents that loop or names that
/// are none neither stop a page nor reach beyond their share.
///
/// Threads: the main thread calls it while file-system threads use the store; the store's lock is taken per
/// record, so a page of 10,000 never holds up a drive call for longer than one record takes. Log lines are
/// written between.
class RemoteChanges {
  public:
    explicit RemoteChanges(TWMetadataStorage& store) : store_(store) {}

    /// One catch-up page. Afterwards the share's `LastApplyedJournalTick` is `largestTick`, also for an empty
    /// page. The records become the store's. Those of a share that the store does not know (any more) are
    /// dropped. `asked`: how things were when the page was asked for. Where askAgain() lowered the tick
    /// since, it stays low.
    struct Asked {
        std::int32_t tick = 0;  ///< the share's `LastApplyedJournalTick`
        std::uint64_t sendings = 0;
    };
    void updateFiles(const std::vector<TWVirtualFilePtr>& files, std::int32_t largestTick,
                     const ManagedSharePtr& forShare, const std::optional<Asked>& asked = std::nullopt);
    [[nodiscard]] Asked asking(const ManagedShare& share) const;

    /// The share's changes after this tick are needed once more: the next catch-up begins there.
    void askAgain(std::string_view shareId, std::int32_t after);

    /// The shares of one domain, as its login reply lists them. Shares of the domain that are no longer
    /// listed are deleted with their data. The records become the store's, in place of those it had.
    void updateShares(const std::vector<ManagedSharePtr>& managedShares, const UserDomain& forDomain);

    /// Deletes every share whose domain is not among `domainIds`.
    void deleteDomainShares(const std::vector<std::string>& domainIds);

  private:
    class FilesMerge;
    class SharesMerge;

    TWMetadataStorage& store_;
};

}  // namespace tarnwell
