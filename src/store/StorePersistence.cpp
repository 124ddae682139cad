#include "store/StorePersistence.h"

#include <filesystem>
#include <system_error>

#include "store/CacheRecovery.h"
#include "store/JournalTexts.h"
#include "store/StoreFiles.h"
#include "store/StoreLoader.h"
#include "store/StoreSaver.h"
#include "store/TWMetadataStorage.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace fs = std::filesystem;

StorePersistence::StorePersistence(TWMetadataStorage& store) : store_(store) {}
StorePersistence::~StorePersistence() = default;

std::string StorePersistence::pathForShare(const CacheLayout& layout, std::string_view shareId) {
    return layout.rootCachePath() + "/share_" + CacheLayout::fileNameForId(shareId) + ".db";
}

void StorePersistence::setJournal(JournalTexts* journal) {
    journal_ = journal;
    store_.changes_.setJournal(journal);
}

void StorePersistence::saveAtOnce() {
    haste_ = true;
    store_.saveDelayed();
}

void StorePersistence::load() {
    const std::lock_guard one(saver_);
    const auto lock = store_.beginWriteStorage();
    saved_ = {};
    removeCutOffFiles(store_.layout().rootCachePath());
    store_.changes_.suspend();
    StoreLoader loader(store_, store_.index_, journal_, saved_, store_.changes_);
    loadDatabase(loader);
    store_.changes_.resume(loader.journal().base);
    for (const auto order : loader.journal().dropped)
        store_.changes_.noteEntry(order);
    if (journal_) {
        CacheRecovery recovery(store_);
        if (loader.replayed() || loader.damaged() || recovery.isDue()) recovery.run(loader.damaged());
        journal_->recover(loader.changedFiles());
    }
    if (loader.replayed()) store_.saveDelayed();
}

void StorePersistence::loadDatabase(StoreLoader& loader) {
    const std::string oldDatabase = TWMetadataStorage::pathToMetadata(store_.layout());
    std::error_code error;
    if (!fs::exists(fs::symlink_status(oldDatabase, error))) {
        loader.loadNewDatabase();
        return;
    }
    TWLog(kLogMain, "Old database detected, migrating to the new database format...");
    if (!loader.loadOldDatabase(oldDatabase)) {
        loader.loadNewDatabase();
        return;
    }
    // The old one goes only when all of it stands in the new files.
    if (!saveLocked()) {
        TWLog(kLogMain, "Error! Migration failed, the old database is kept.");
        return;
    }
    fs::remove(oldDatabase, error);
    TWLog(kLogMain, "Migration succeeded.");
}

bool StorePersistence::saveLocked() {
    StoreSaver saver(store_, store_.index_, journal_, saved_, store_.changes_,
                     [this] { return clearing_ > 0; });
    return saver.save();
}

bool StorePersistence::save() {
    bool saved = false;
    {
        const std::lock_guard one(saver_);
        saveAgain_ = false;
        saved = saveLocked();
    }
    if (saveAgain_) saveOrJoin();
    return saved;
}

void StorePersistence::saveOrJoin() {
    saveAgain_ = true;
    // Asked again after the lock was released: a request that came between the last save and the release
    // found the lock taken and relies on this thread.
    while (saveAgain_) {
        const std::unique_lock one(saver_, std::try_to_lock);
        if (!one) return;
        if (saveAgain_.exchange(false)) saveLocked();
    }
}

int StorePersistence::flushChanges() {
    const int error = store_.changes_.sync();
    if (error != 0) saveAtOnce();
    return error;
}

void StorePersistence::clear() {
    ++clearing_;
    StoreIndex emptied;  // the old tables: freed when no lock is held any more
    {
        const std::lock_guard one(saver_);
        --clearing_;
        const auto lock = store_.beginWriteStorage();
        std::swap(emptied, store_.index_);
        store_.globalLoginResponce_.clear();
        if (journal_) journal_->loadJournals({});
        store_.changes_.clear();
        const auto& folder = store_.layout().rootCachePath();
        for (const auto& name : storeFileNames(folder, true)) {
            std::error_code error;
            fs::remove(folder + "/" + name, error);
            if (error) {
                TWLog(kLogMain, "Warning! Cannot remove metadata file %@ : error %@", name, error.message());
            }
        }
        saved_ = {};
        saved_.journalUnread = false;
        store_.storageEmpty_ = true;
    }
}

}  // namespace tarnwell
