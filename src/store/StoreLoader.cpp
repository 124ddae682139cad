#include "store/StoreLoader.h"

#include <pthread.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <utility>
#include <vector>

#include "store/Enums.h"
#include "store/JournalTexts.h"
#include "store/StoreFiles.h"
#include "store/StoreIndex.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/StoredForm.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

constexpr std::string_view kExtendedAttributes = "ExtendedAttributes";
/// A damaged file could give a line for each of a million records.
constexpr std::size_t kMostWarnings = 20;
constexpr std::size_t kLikelyRecordBytes = 480;

const PropertyList::Array* arrayOf(const PropertyList* value) {
    return value ? value->get<PropertyList::Array>() : nullptr;
}

std::vector<std::string> textsOf(const PropertyList* value) {
    std::vector<std::string> texts;
    if (const auto* list = arrayOf(value)) {
        for (const auto& element : *list) {
            // What is no text is handed on as one that cannot be parsed: it is reported like that.
            const auto* text = element.get<std::string>();
            texts.push_back(text ? *text : std::string());
        }
    }
    return texts;
}

/// Tables that grow step by step would look at every record again at each step.
std::size_t likelyRecords(const CacheLayout& layout, const std::vector<ManagedSharePtr>& shares) {
    std::uintmax_t bytes = 0;
    for (const auto& share : shares) {
        std::error_code error;
        const auto size = fs::file_size(StorePersistence::pathForShare(layout, *share->ShareId), error);
        if (!error) bytes += size;
    }
    return bytes / kLikelyRecordBytes;
}

/// None where there are none or they are damaged: they are not worth the record.
std::optional<PropertyList> extendedAttributesOf(const BinaryPropertyListReader::Value& dictionary,
                                                 std::string_view bytes) {
    try {
        const auto value = dictionary.find(kExtendedAttributes);
        if (!value) return std::nullopt;
        return BinaryPropertyListReader(bytes).tree(*value);
    } catch (const MalformedPropertyList& malformed) {
        TWLog(kLogMain, "Warning! Extended attributes of a loaded file are damaged: %@", malformed.what());
        return std::nullopt;
    }
}

}  // namespace

StoreLoader::StoreLoader(TWMetadataStorage& store, StoreIndex& index, JournalTexts* journal,
                         SavedStore& saved, ChangeRecorder& changes)
    : store_(store), index_(index), journal_(journal), saved_(saved), replay_(store, index, changes) {
    index_ = {};
    if (journal_) journal_->loadJournals({});
}

StoreLoader::FileState StoreLoader::readDictionary(const std::string& path, std::string_view listKey,
                                                   PropertyList::Dictionary& dictionary) {
    std::string bytes;
    if (const int error = readStoreFile(path, bytes)) {
        if (error == ENOENT) return FileState::kAbsent;
        TWLog(kLogMain, "Warning! Cannot read %@ : error %@", path, std::strerror(error));
        return FileState::kUnread;
    }
    std::string error = "no such list";
    auto list = parsePropertyList(bytes, error);
    const auto* read = list ? list->get<PropertyList::Dictionary>() : nullptr;
    if (!read || !arrayOf(read->find(listKey))) {
        setAside(path, error);
        return FileState::kDamaged;
    }
    dictionary = *read;
    return FileState::kRead;
}

void StoreLoader::setAside(const std::string& path, std::string_view why) {
    damaged_ = true;
    const auto aside = setStoreFileAside(path, AsideReason::kDamaged);
    TWLog(kLogMain, "Warning! %@ is damaged (%@). It is kept as %@.", path, why,
          aside.empty() ? std::string_view(path) : aside);
}

void StoreLoader::loadNewDatabase() {
    PropertyList::Dictionary shares;
    store_.setStorageEmpty(true);
    const bool saved = readDictionary(store_.layout().rootCachePath() + "/" + std::string(kSharesFile),
                                      "shares", shares) == FileState::kRead;
    if (saved) {
        loadShares(shares.find("shares"));
        loadFilesOfShares();
        readJournalFile();
    }
    replay_.run();
    if (!saved && replay_.empty()) return;
    loadJournal();
    if (saved) loadGlobalLoginResponce(shares.find("globalresponce"));
    loadFinished();
}

bool StoreLoader::loadOldDatabase(const std::string& path) {
    PropertyList::Dictionary database;
    store_.setStorageEmpty(true);
    if (readDictionary(path, "shares", database) != FileState::kRead) return false;
    loadShares(database.find("shares"));
    loadFiles(database.find("files"));
    journalTexts_ = textsOf(database.find("journal"));
    saved_.journalUnread = false;
    replay_.run();
    loadJournal();
    loadGlobalLoginResponce(database.find("globalresponce"));
    loadFinished();
    return true;
}

void StoreLoader::loadShares(const PropertyList* list) {
    for (const auto& text : textsOf(list)) {
        std::string error;
        const auto share = parseRecord<ManagedShare>(text, error);
        if (!share) {
            TWLog(kLogMain, "Warning! Cannot deserialize share from metadata storage. Error %@", error);
            continue;
        }
        if (share->ShareId.value_or("").empty()) {
            TWLog(kLogMain, "Warning! Deserialized share doesn't have share id!");
            continue;
        }
        if (!share->DisplayName) share->DisplayName = share->ShareName;
        share->TransmitCounter = 0;
        store_.insertShare(share);
        store_.createFolderForShare(*share);
    }
}

/// What a share's own file holds. Read on a thread of its own while the records of another one are entered.
struct StoreLoader::ShareFile {
    int error = 0;
    StoredRecordCount count;
    std::vector<TWVirtualFilePtr> files;
    std::vector<std::pair<TWVirtualFilePtr, PropertyList>> attributes;
};

StoreLoader::ShareFile StoreLoader::readShareFile(const std::string& path) {
    ShareFile read;
    std::string bytes;
    read.error = readStoreFile(path, bytes);
    if (read.error != 0) return read;
    read.files.reserve(bytes.size() / kLikelyRecordBytes);
    // Looking for the key in each of a million records would take longer than all the rest.
    const bool hasAttributes = bytes.find(kExtendedAttributes) != std::string::npos;
    const auto each = [&](TWVirtualFilePtr file, const BinaryPropertyListReader::Value& dictionary) {
        if (hasAttributes) {
            if (auto attributes = extendedAttributesOf(dictionary, bytes))
                read.attributes.emplace_back(file, std::move(*attributes));
        }
        read.files.push_back(std::move(file));
    };
    readStoredRecords<TWVirtualFile>(bytes, "files", each, read.count);
    return read;
}

void StoreLoader::loadFilesOfShares() {
    const auto shares = store_.shares();
    index_.reserve(likelyRecords(store_.layout(), shares));
    const auto begin = [&](std::size_t i) {
        return std::async(std::launch::async,
                          [path = StorePersistence::pathForShare(store_.layout(), *shares[i]->ShareId)] {
                              pthread_setname_np(pthread_self(), "tw-load");
                              return readShareFile(path);
                          });
    };
    std::future<ShareFile> next;
    if (!shares.empty()) next = begin(0);
    for (std::size_t i = 0; i < shares.size(); ++i) {
        const ShareFile read = next.get();
        if (i + 1 < shares.size()) next = begin(i + 1);
        takeShareFile(shares[i], read);
    }
}

/// A share's file may speak for that share only.
void StoreLoader::takeShareFile(const ManagedSharePtr& share, const ShareFile& read) {
    const auto& id = *share->ShareId;
    const std::string path = StorePersistence::pathForShare(store_.layout(), id);
    for (const auto& file : read.files)
        loadFile(file, share.get());
    for (const auto& [file, attributes] : read.attributes) {
        if (index_.fileWithId(file->InternalName.view()) == file) moveExtendedAttributes(*file, &attributes);
    }
    auto& saved = saved_.shares[id];
    if (read.error == 0 && read.count.error.empty()) {
        saved.tick = share->LastApplyedJournalTick;
        // Attributes that moved out make the file old: it is written again without them.
        if (read.attributes.empty()) saved.generation = index_.shareFiles().generation(id);
        return;
    }
    // The records that are missing come again with a catch-up from the first tick.
    damaged_ = true;
    share->LastApplyedJournalTick = -1;
    TWLog(kLogMain, "Warning! Cannot load data for share %@ (%@)", share->ShareName.value_or(""), id);
    if (read.error == 0) {
        setAside(path, read.count.error);
    } else if (read.error != ENOENT) {
        TWLog(kLogMain, "Warning! Cannot read %@ : error %@", path, std::strerror(read.error));
        saved.unread = true;
    }
}

void StoreLoader::loadFiles(const PropertyList* list) {
    const auto* files = arrayOf(list);
    if (!files) return;
    for (const auto& element : *files) {
        const auto* dictionary = element.get<PropertyList::Dictionary>();
        if (!dictionary) continue;
        auto file = std::make_shared<TWVirtualFile>();
        loadFromDictionary(*file, *dictionary);
        moveExtendedAttributes(*file, dictionary->find(kExtendedAttributes));
        loadFile(std::move(file), nullptr);
    }
}

void StoreLoader::loadFile(TWVirtualFilePtr file, const ManagedShare* ofShare) {
    if (file->InternalName.empty() || file->ParrentId.empty()) {
        return warnOfFile("Warning! Loaded file doesn't have internal name or parent id!", *file);
    }
    if (ofShare) {
        if (!file->ShareId) file->ShareId = *ofShare->ShareId;
        const auto other = index_.fileWithId(file->InternalName.view());
        if (file->ShareId != *ofShare->ShareId || (other && other->ShareId != file->ShareId)) {
            return warnOfFile("Warning! Loaded file does not belong to its share!", *file);
        }
    }
    if (index_.shareWithId(file->InternalName.view())) {
        return warnOfFile("Warning! Loaded file has the id of a share!", *file);
    }
    if (!file->POSIXPermissions) {
        file->POSIXPermissions = file->IsFile ? kDefaultFilePermissions : kDefaultFolderPermissions;
    }
    index_.insertWithoutPath(file);
}

void StoreLoader::warnOfFile(std::string_view text, const TWVirtualFile& file) {
    if (++warnings_ > kMostWarnings) return;
    TWLogText(kLogMain, text);
    TWLog(kLogMain, "Loaded file: %@ (%@)", file.PublicName, file.InternalName);
}

void StoreLoader::moveExtendedAttributes(const TWVirtualFile& file, const PropertyList* attributes) const {
    const auto* map = attributes ? attributes->get<PropertyList::Dictionary>() : nullptr;
    if (!map || file.InternalName.empty()) return;
    PropertyList::Dictionary decoded;
    for (const auto& [name, value] : map->entries()) {
        const auto* text = value.get<std::string>();
        if (auto bytes = text ? base64Decode(*text) : std::nullopt) {
            decoded.append(name, PropertyList::Data{std::move(*bytes)});
        }
    }
    if (decoded.entries().empty()) return;
    std::string error;
    const auto bytes = serializePropertyList(decoded, PropertyListForm::kBinary, error);
    const std::string path = store_.layout().extendedAttrsPathForFile(file);
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (bytes) out << *bytes;
    if (!bytes || !out.flush()) TWLog(kLogMain, "Warning! Cannot write attribute file %@. %@", path, error);
}

void StoreLoader::readJournalFile() {
    if (!journal_) return;
    const std::string path = store_.layout().rootCachePath() + "/" + std::string(kJournalFile);
    PropertyList::Dictionary journal;
    const auto state = readDictionary(path, "journal", journal);
    if (state == FileState::kUnread) return;
    saved_.journalUnread = false;
    if (state == FileState::kRead) journalTexts_ = textsOf(journal.find("journal"));
}

void StoreLoader::loadJournal() {
    if (!journal_) return;
    replayedJournal_ = replay_.journal(journalTexts_);
    const auto& entries = replayedJournal_.entries;
    if (journal_->loadJournals(entries) >= entries.size() || journalTexts_.empty()) return;
    damaged_ = true;
    // The next save leaves out what cannot be understood: changes of the user's.
    const std::string path = store_.layout().rootCachePath() + "/" + std::string(kJournalFile);
    TWLog(kLogMain, "Warning! Not all of the journal could be read. It is kept as %@.",
          keepStoreFileAside(path, AsideReason::kDamaged));
}

std::vector<TWVirtualFilePtr> StoreLoader::changedFiles() const {
    std::vector<TWVirtualFilePtr> files;
    for (const auto& [hash, file] : index_.files()) {
        if (file->IsFile && file->LocallyUpdated.value_or(false)) files.push_back(file);
    }
    return files;
}

void StoreLoader::loadGlobalLoginResponce(const PropertyList* text) {
    const auto* responce = text ? text->get<std::string>() : nullptr;
    store_.setGlobalLoginResponce(responce ? *responce : std::string());
}

void StoreLoader::loadFinished() {
    index_.formAllPaths();
    store_.setStorageEmpty(false);
    if (warnings_ > kMostWarnings) {
        TWLog(kLogMain, "Warning! %d loaded files could not be taken.", warnings_);
    }
}

}  // namespace tarnwell
