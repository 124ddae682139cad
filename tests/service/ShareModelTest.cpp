#include <algorithm>
#include <map>
#include <optional>
#include <random>
#include <set>

#include "service/Names.h"
#include "service/ServiceWorld.h"
#include "service/ShareEvents.h"
#include "service/ShareTree.h"
#include "service/TestDisk.h"
#include "service/Transfers.h"
#include "store/Enums.h"
#include "support/Seed.h"
#include "util/Hash.h"

namespace tarnwell::service::testing {
namespace {

using Random = std::mt19937_64;

/// What nobody may lose: contents that a device was told to be stored, unless a device that had seen them
/// replaced or deleted them.
struct Ledger {
    std::set<std::string> promised;
    std::set<std::string> excused;
    std::map<std::string, std::string> byHash;
};

/// One device with its picture of the share. It keeps to what clients keep to: one change at a time, repeated
/// until an answer comes; as base of an edit it claims the version that the edit was made on; pages pass over
/// what has a pending change.
class ModelDevice {
  public:
    ModelDevice(MetadataStore& store, AccessRight right, Ledger& ledger, Random& random)
        : store_(store), right_(std::move(right)), ledger_(ledger), random_(random) {}

    void step(Transfers& transfers, bool calm) {
        if (!pending_ || (!calm && chance(4))) hear(calm ? 10'000 : 1 + pick(6));
        if (!pending_ && !calm) begin();
        if (pending_ && (calm || chance(2))) send(transfers, !calm && chance(4));
    }
    [[nodiscard]] bool idle() const { return !pending_; }
    /// "id: parent/name=hash", sorted.
    [[nodiscard]] std::string picture() const {
        std::string text;
        for (const auto& [id, item] : items_)
            text += id + ": " + item.ParrentId.str() + "/" + item.PublicName.str() + "=" +
                    (item.IsFile && item.size() > 0 ? item.FilehHash.str() : "") + "\n";
        return text;
    }

  private:
    struct Pending {
        std::int32_t type;
        TWVirtualFile record;
        std::string contents;
        std::string base;  ///< contents that the edit replaces, or the deletion takes
        std::vector<std::string> inside;
        std::string token;
    };

    int pick(int count) { return static_cast<int>(random_() % static_cast<unsigned>(count)); }
    bool chance(int oneIn) { return pick(oneIn) == 0; }
    std::string contentsOf(const TWVirtualFile& item) const {
        return item.size() == 0 ? "" : ledger_.byHash.at(item.FilehHash.str());
    }
    bool shown(const TWVirtualFile& item) const {
        for (std::string above = item.ParrentId.str(); above != right_.shareId;) {
            const auto folder = items_.find(above);
            if (folder == items_.end()) return false;
            above = folder->second.ParrentId.str();
        }
        return true;
    }
    TWVirtualFile* any(const std::function<bool(const TWVirtualFile&)>& fits) {
        std::vector<TWVirtualFile*> found;
        for (auto& [id, item] : items_)
            if (fits(item) && shown(item)) found.push_back(&item);
        return found.empty() ? nullptr : found[random_() % found.size()];
    }
    std::string anyFolder() {
        const auto* folder = any([](const TWVirtualFile& item) { return !item.IsFile; });
        return folder && !chance(3) ? folder->InternalName.str() : right_.shareId;
    }
    std::string anyName() { return std::string(1, "aAbBc"[pick(5)]); }

    void fill(Pending& change) {
        change.contents = right_.deviceId.substr(0, 4) + "-" + std::to_string(++count_);
        ledger_.byHash[hashText(change.contents)] = change.contents;
        auto& record = change.record;
        record.UploadName = newUploadName();
        record.FilehHash = hashText(change.contents);
        record.AllocationSize = record.EndOfFile = static_cast<std::int64_t>(change.contents.size());
    }

    void begin() {
        const auto isFile = [](const TWVirtualFile& item) { return item.IsFile; };
        const auto isAny = [](const TWVirtualFile&) { return true; };
        const int what = pick(12);
        Pending change;
        if (what < 3) {
            change.type = kJournalCreate;
            auto& record = change.record;
            record.InternalName = newInternalName();
            record.ParrentId = anyFolder();
            record.PublicName = anyName();
            record.IsFile = what < 2;
            record.Tick = -1;
            if (record.IsFile) fill(change);
            items_[record.InternalName.str()] = record;
        } else if (what < 7) {
            auto* item = any(isFile);
            if (!item) return;
            change.type = kJournalUpdate;
            change.record = *item;
            change.base = contentsOf(*item);
            if (chance(2)) change.record.LastUploadName = item->UploadName;
            fill(change);
            *item = change.record;
        } else if (what < 10) {
            auto* item = any(isAny);
            if (!item) return;
            change.type = kJournalRename;
            item->PublicName = anyName();
            if (const auto folder = anyFolder(); !chance(3) && !isInside(folder, item->InternalName.str()))
                item->ParrentId = folder;
            change.record = *item;
        } else {
            auto* item = any(isAny);
            if (!item) return;
            change.type = kJournalDelete;
            change.record = *item;
            if (item->IsFile) change.base = contentsOf(*item);
            const std::string id = item->InternalName.str();
            std::vector<std::string> gone;
            for (const auto& [inner, one] : items_)
                if (isInside(inner, id)) gone.push_back(inner);
            for (const auto& inner : gone) {
                if (items_[inner].IsFile) change.inside.push_back(contentsOf(items_[inner]));
                items_.erase(inner);
            }
        }
        pending_ = std::move(change);
    }
    bool isInside(std::string id, const std::string& folder) const {
        for (; id != folder; id = items_.at(id).ParrentId.str())
            if (!items_.contains(id)) return false;
        return true;
    }

    /// One request. Its answer may be lost.
    void send(Transfers& transfers, bool lost) {
        auto& change = *pending_;
        const Author author{right_.deviceId, right_.email};
        EventResult result;
        if (change.type != kJournalRename && change.type != kJournalDelete && change.record.IsFile) {
            if (change.token.empty()) {
                auto announced = transfers.announce(right_, change.type, change.record);
                ASSERT_TRUE(announced.result.code == 1 || announced.result.code == 3)
                    << announced.result.code << " " << change.type;
                if (lost) {
                    if (chance(2)) saveAgain(change);
                    return;
                }
                change.token = announced.token;
                if (announced.result.code == 3) rename(change, *announced.result.item);
                return;
            }
            const std::string hash = hashText(change.contents);
            const auto size = static_cast<std::int64_t>(change.contents.size());
            const auto reply = transfers.take({change.token, 0, size, hash, change.contents}, shareDomain());
            ASSERT_EQ(reply.ResponseCode, 2);
            ledger_.excused.insert(change.base);
            if (lost) {
                if (chance(2)) change.token.clear();
                return;
            }
            ledger_.promised.insert(change.contents);
            if (auto known = items_.find(change.record.InternalName.str()); known != items_.end())
                known->second.LastUploadName = change.record.UploadName;
        } else {
            const auto perform = change.type == kJournalCreate   ? placeFolder
                                 : change.type == kJournalRename ? moveAsAsked
                                                                 : removeAsAsked;
            store_.change(right_.shareId,
                          [&](ShareChange& share) { result = perform(share, author, change.record); });
            if (change.type == kJournalDelete) {
                ledger_.excused.insert(change.base);
                ledger_.excused.insert(change.inside.begin(), change.inside.end());
            }
            if (lost) return;
            if (result.code == 3) rename(change, *result.item);
        }
        pending_.reset();
    }
    /// The user saves once more before the answer is known: other bytes, the same base.
    void saveAgain(Pending& change) {
        fill(change);
        items_[change.record.InternalName.str()] = change.record;
    }
    void rename(Pending& change, const TWVirtualFile& answer) {
        change.record.PublicName = answer.PublicName;
        if (auto known = items_.find(change.record.InternalName.str()); known != items_.end())
            known->second.PublicName = answer.PublicName;
    }
    std::string shareDomain() { return store_.shareWithId(right_.shareId)->domainId; }

    /// One page.
    void hear(int take) {
        const auto page = store_.changesSince(right_.shareId, tick_, take, "");
        tick_ = page->LargestTick;
        for (const auto& record : page->TwVirtualFiles) {
            const std::string id = record->InternalName.str();
            TWVirtualFile incoming = *record;
            if (pending_ && pending_->record.InternalName.view() == id) {
                if (pending_->type != kJournalRename || record->Deleted) continue;
                incoming.PublicName = pending_->record.PublicName;
                incoming.ParrentId = pending_->record.ParrentId;
            }
            if (incoming.Deleted)
                items_.erase(id);
            else
                items_[id] = incoming;
        }
    }

    MetadataStore& store_;
    const AccessRight right_;
    Ledger& ledger_;
    Random& random_;
    std::map<std::string, TWVirtualFile> items_;
    std::optional<Pending> pending_;
    std::int32_t tick_ = -1;
    int count_ = 0;
};

class ShareModelTest : public ServiceWorld {
  protected:
    /// As ModelDevice::picture(), of the service.
    std::string picture() {
        std::map<std::string, std::string> lines;
        const auto page = metadata().changesSince(docs_.id, -1, 1 << 30, "");
        for (const auto& item : page->TwVirtualFiles)
            if (!item->Deleted)
                lines[item->InternalName.str()] =
                    ": " + item->ParrentId.str() + "/" + item->PublicName.str() + "=" + item->FilehHash.str();
        std::string text;
        for (const auto& [id, line] : lines)
            text += id + line + "\n";
        return text;
    }
    /// Promised contents that are neither in the tree nor excused.
    std::string lost(const Ledger& ledger) {
        std::set<std::string> there;
        metadata().view(docs_.id, [&](ShareView& view) {
            std::vector<std::string> folders{docs_.id};
            while (!folders.empty()) {
                const std::string folder = std::move(folders.back());
                folders.pop_back();
                for (const auto& item : view.children(folder)) {
                    if (!item->IsFile) folders.push_back(item->InternalName.str());
                    if (item->size() == 0) continue;
                    EXPECT_EQ(data_->contents().sizeOf(item->UploadName.view()), item->size());
                    there.insert(ledger.byHash.at(item->FilehHash.str()));
                }
            }
        });
        std::string text;
        for (const auto& contents : ledger.promised)
            if (!there.contains(contents) && !ledger.excused.contains(contents)) text += contents + " ";
        return text;
    }
};

TEST_F(ShareModelTest, noOrderOfEventsLosesWhatWasAcknowledged) {
    const TestDisk fast(TestDisk::Sync::skip);
    const auto first = tarnwell::testing::seed();
    const int runs = tarnwell::testing::rounds(15);
    std::vector<AccessRight> rights;
    for (const char* name : {"one", "two", "three"}) {
        const auto device = metadata().addDevice(anna_.id, name, "");
        (void)metadata().accessOf(device, alpha_.id);
        rights.push_back(*metadata().rightOfDevice(device.id, docs_.id));
    }
    for (int run = 0; run < runs && !HasFailure(); ++run) {
        const auto seed = first + static_cast<unsigned>(run);
        SCOPED_TRACE(tarnwell::testing::replayWith(seed));
        docs_ = metadata().addShare("Run " + std::to_string(run), alpha_.id);
        metadata().grant(docs_.id, anna_.id, false);
        Random random(seed);
        Ledger ledger;
        std::vector<ModelDevice> devices;
        for (std::size_t i = 0; i < 2 + seed % 2; ++i) {
            auto right = rights[i];
            right.shareId = docs_.id;
            (void)metadata().accessOf(*metadata().device(anna_.id, right.deviceId), alpha_.id);
            devices.emplace_back(metadata(), right, ledger, random);
        }
        auto transfers = std::make_unique<Transfers>(metadata(), data_->contents());
        for (int step = 0; step < 300 && !HasFailure(); ++step) {
            devices[random() % devices.size()].step(*transfers, false);
            if (random() % 50 == 0) transfers = std::make_unique<Transfers>(metadata(), data_->contents());
            ASSERT_EQ(lost(ledger), "") << "after step " << step;
        }
        for (int round = 0; round < 4; ++round)
            for (auto& device : devices)
                while (device.step(*transfers, true), !device.idle() && !HasFailure()) {
                }
        EXPECT_EQ(lost(ledger), "");
        for (const auto& device : devices)
            EXPECT_EQ(device.picture(), picture());
    }
}

}  // namespace
}  // namespace tarnwell::service::testing
