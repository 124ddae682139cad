#include "store/StoreSaver.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "store/ChangeRecorder.h"
#include "store/JournalTexts.h"
#include "store/StoreIndex.h"
#include "store/TWMetadataStorage.h"
#include "util/Hash.h"
#include "util/RecordMapping.h"
#include "util/StoredForm.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

/// Records that are copied under one hold of the store's lock: some 50 microseconds.
constexpr std::size_t kRecordsAtOnce = 128;
/// Files that are given to the disk while the next ones are encoded; each keeps a descriptor open.
constexpr std::size_t kUnsyncedFiles = 8;

/// A walk over the records of one share while it lives; takes the store's lock for each step.
class WalkHold {
  public:
    WalkHold(TWMetadataStorage& store, const StoreIndex& index, std::string shareId)
        : store_(store), index_(index), walk_(std::move(shareId)) {
        const auto lock = store_.beginReadStorage();
        index_.shareFiles().beginWalk(walk_);
    }
    ~WalkHold() {
        const auto lock = store_.beginReadStorage();
        index_.shareFiles().endWalk();
    }
    WalkHold(const WalkHold&) = delete;
    WalkHold& operator=(const WalkHold&) = delete;

    void copyNext(std::vector<TWVirtualFile>& records) {
        const auto lock = store_.beginReadStorage();
        index_.shareFiles().copyNext(walk_, kRecordsAtOnce, records);
    }

  private:
    TWMetadataStorage& store_;
    const StoreIndex& index_;
    ShareFiles::Walk walk_;  // guarded by the store's lock
};

PropertyList::Array textList(const std::vector<std::string>& texts) {
    PropertyList::Array list;
    list.reserve(texts.size());
    for (const auto& text : texts)
        list.emplace_back(text);
    return list;
}

}  // namespace

StoreSaver::StoreSaver(TWMetadataStorage& store, const StoreIndex& index, const JournalTexts* journal,
                       SavedStore& saved, ChangeRecorder& changes, std::function<bool()> givenUp)
    : store_(store),
      index_(index),
      journal_(journal),
      saved_(saved),
      changes_(changes),
      givenUp_(std::move(givenUp)),
      folder_(store.layout().rootCachePath()) {}

bool StoreSaver::save() {
    // The log stays until all of it is saved, also when an exception passes.
    struct End {
        StoreSaver& saver;
        bool saved = false;
        ~End() {
            const auto lock = saver.store_.beginWriteStorage();
            saved ? saver.changes_.endSave(saver.changesBefore_) : saver.changes_.abandonSave();
        }
    } end{*this};
    end.saved = saveAll();
    return end.saved;
}

bool StoreSaver::saveAll() {
    TWLog(kLogMain, "Saving file metadata...");
    takeShares();
    if (!writeShareFiles() || !replaceJournal() || !replaceShareFiles() || !replaceShares()) return false;
    if (whole_) {
        TWLog(kLogMain, "Saved file metadata: %d files, %d shares, %d journal entries.", files_,
              shares_.size(), entries_);
    }
    return whole_;
}

bool StoreSaver::failed(const std::string& path, int error) {
    TWLog(kLogMain, "Error! Cannot save %@ : error %@. The former file is kept.", path, std::strerror(error));
    whole_ = false;
    return false;
}

void StoreSaver::takeShares() {
    const auto lock = store_.beginReadStorage();
    changesBefore_ = changes_.beginSave();
    loginResponce_ = store_.globalLoginResponce();
    shares_.reserve(index_.shares().size());
    for (const auto& [id, share] : index_.shares()) {
        const auto& records = index_.shareFiles();
        shares_.push_back({*share, records.generation(id), records.count(id)});
        files_ += shares_.back().files;
    }
}

bool StoreSaver::writeShareFiles() {
    written_.reserve(shares_.size());
    for (const auto& share : shares_) {
        const auto& id = *share.share.ShareId;
        auto& saved = saved_.shares[id];
        const std::string path = StorePersistence::pathForShare(store_.layout(), id);
        if (saved.generation == share.generation && ::access(path.c_str(), F_OK) == 0) {
            // Unchanged at the moment of the tick, so the file is as good as it.
            saved.tick = share.share.LastApplyedJournalTick;
            continue;
        }
        ReplacementFile file(path);
        const int error = writeRecords(share, file);
        if (givenUp_()) return false;
        if (error != 0) {
            failed(path, error);
            continue;
        }
        written_.push_back({&share, std::move(file)});
        if (written_.size() > kUnsyncedFiles) written_[written_.size() - 1 - kUnsyncedFiles].file.sync();
    }
    std::erase_if(written_, [this](Written& written) {
        const int error = written.file.sync();
        if (error != 0) failed(written.file.path(), error);
        return error != 0;
    });
    return !givenUp_();
}

/// Copies a few records under the lock and encodes them without it: whoever waits for the lock gets it in
/// between.
int StoreSaver::writeRecords(const Share& share, ReplacementFile& file) const {
    if (const int error = file.open()) return error;
    const auto sink = [&file](std::string_view bytes) { return file.write(bytes); };
    // Records may be added during the walk, and some are then seen twice: room for that, within reason.
    StoredRecordWriter<TWVirtualFile> writer(sink, "files", share.files + share.files / 8 + 4096);
    std::vector<TWVirtualFile> records;
    records.reserve(kRecordsAtOnce);
    WalkHold walk(store_, index_, *share.share.ShareId);
    for (;;) {
        records.clear();
        walk.copyNext(records);
        if (records.empty()) break;
        for (const auto& record : records)
            writer.add(record);
        if (givenUp_()) return ECANCELED;
    }
    const int error = writer.finish();
    return error != 0 ? error : file.startSync();
}

bool StoreSaver::replaceJournal() {
    const std::string path = folder_ + "/" + std::string(kJournalFile);
    const bool there = ::access(path.c_str(), F_OK) == 0;
    if (!journal_ && there) return true;
    if (saved_.journalUnread && there) {
        const auto aside = setStoreFileAside(path, AsideReason::kUnread);
        if (aside.empty()) return failed(path, errno);
        TWLog(kLogMain, "Warning! A journal that could not be read is kept as %@.", aside);
    }
    saved_.journalUnread = false;

    std::function<std::vector<JournalText>()> snapshot = [] { return std::vector<JournalText>(); };
    if (journal_) {
        const auto lock = store_.beginReadJournal();
        snapshot = journal_->journalSnapshot();
    }
    std::vector<std::string> texts;
    JournalBase base;
    for (auto& [order, text] : snapshot()) {
        base.orders.push_back(order);
        texts.push_back(std::move(text));
    }
    base.hash = hashOfJournal(texts);
    entries_ = texts.size();
    PropertyList::Dictionary list;
    list.append("journal", textList(texts));
    std::string error;
    const auto bytes = serializePropertyList(list, PropertyListForm::kXml, error);
    if (!bytes) {
        TWLog(kLogMain, "Error! Cannot save %@ : error %@. The former file is kept.", path, error);
        return false;
    }
    {
        const auto lock = store_.beginWriteJournal();
        changes_.journalTaken(std::move(base));
    }
    // After a loss of power too the log knows the entries of the file that stands there.
    changes_.sync();
    if (!replaceList(path, *bytes, saved_.journalHash)) return false;
    const auto lock = store_.beginWriteJournal();
    changes_.journalReplaced();
    return true;
}

/// Leaves a file alone that has these bytes already.
bool StoreSaver::replaceList(const std::string& path, const std::string& bytes, std::string& savedHash) {
    auto hash = hashText(bytes);
    if (hash == savedHash && ::access(path.c_str(), F_OK) == 0) return true;
    if (givenUp_()) return false;
    ReplacementFile file(path);
    int error = file.open();
    if (error == 0) error = file.write(bytes);
    if (error == 0) error = file.sync();
    if (error == 0) error = file.commit();
    if (error == 0) error = syncStoreFolder(folder_);
    if (error != 0) return failed(path, error);
    savedHash = std::move(hash);
    return true;
}

bool StoreSaver::replaceShareFiles() {
    for (auto& [share, file] : written_) {
        if (givenUp_()) return false;
        auto& saved = saved_.shares[*share->share.ShareId];
        if (std::exchange(saved.unread, false)) {
            const auto aside = setStoreFileAside(file.path(), AsideReason::kUnread);
            if (!aside.empty())
                TWLog(kLogMain, "Warning! Share data that could not be read is kept as %@.", aside);
        }
        if (const int error = file.commit()) {
            failed(file.path(), error);
            continue;
        }
        saved.generation = share->generation;
        saved.tick = share->share.LastApplyedJournalTick;
    }
    if (written_.empty()) return true;
    if (const int error = syncStoreFolder(folder_)) {
        // It is not known which of the files would stand there after a power failure.
        for (const auto& written : written_)
            saved_.shares[*written.share->share.ShareId].generation.reset();
        return failed(folder_, error);
    }
    return true;
}

/// A share stands there with the tick of its file, which is older than its own when that was not written.
std::string StoreSaver::sharesList() const {
    std::vector<std::string> texts;
    for (const auto& share : shares_) {
        ManagedShare record = share.share;
        record.LastApplyedJournalTick = saved_.shares.at(*record.ShareId).tick;
        texts.push_back(toJsonText(record));
    }
    // Without a set order the same shares would look changed each time.
    std::sort(texts.begin(), texts.end());
    PropertyList::Dictionary list;
    list.append("shares", textList(texts));
    list.append("globalresponce", loginResponce_);
    std::string error;
    auto bytes = serializePropertyList(list, PropertyListForm::kXml, error);
    if (!bytes) {
        // JSON texts have no character that XML lacks; a reply of the service may have any.
        TWLog(kLogMain, "Warning! The login reply cannot be saved: %@", error);
        list.set("globalresponce", "");
        bytes = serializePropertyList(list, PropertyListForm::kXml, error);
    }
    return bytes.value_or("");
}

bool StoreSaver::replaceShares() {
    const std::string bytes = sharesList();
    const std::string path = folder_ + "/" + std::string(kSharesFile);
    if (bytes.empty()) return failed(path, EINVAL);
    if (!replaceList(path, bytes, saved_.sharesHash)) return false;
    forgetShares();
    return true;
}

/// Nobody may find the records of a share in the folder that the user has no more.
void StoreSaver::forgetShares() {
    std::erase_if(saved_.shares, [&](const auto& saved) {
        const bool known = std::any_of(shares_.begin(), shares_.end(), [&](const Share& share) {
            return share.share.ShareId == saved.first;
        });
        if (!known) ::unlink(StorePersistence::pathForShare(store_.layout(), saved.first).c_str());
        return !known;
    });
}

}  // namespace tarnwell
