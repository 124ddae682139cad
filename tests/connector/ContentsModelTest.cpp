// Cached bytes are those of the version that the record names, whatever comes between, and nothing that a
// user wrote is lost on the way.

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>

#include "connector/ConnectorWorld.h"
#include "connector/UploadFiles.h"
#include "store/FileSizeLimit.h"
#include "store/KeptFiles.h"
#include "store/LocalChangeJournal.h"
#include "store/RemoteChanges.h"
#include "store/StorePersistence.h"
#include "support/Seed.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

const std::vector<std::string> kIds{"Fa", "Fb", "Fc"};

/// A client, its user, the service and the disk: any sequence of steps, and what must hold after each.
class ContentsModel {
  public:
    explicit ContentsModel(unsigned seed) : random_(seed) {
        begin();
        for (const auto& id : kIds)
            changeRemotely(id);
        mergeAll();
    }

    void step() {
        const std::string id = kIds[pick(kIds.size())];
        switch (pick(13)) {
            case 0:
                return note("remote " + id), changeRemotely(id);
            case 1:
                return note("merge " + id), merge(id);
            case 2:
                return note("read " + id), read(id);
            case 3:
                return note("download " + id), download(id);
            case 4:
            case 5:
                return note("edit " + id), editing_.contains(id) ? endEdit(id) : beginEdit(id);
            case 6:
                return note("background"), static_cast<void>(world_->settle());
            case 7:
            case 8:
                return note("send"), send();
            case 9:
                return note("expire"), expire();
            case 10:
                return note("save"), static_cast<void>(world_->store.persistence().save());
            case 11:
                return note("kill"), kill();
            default:
                return fullDisk(id);
        }
    }
    /// Empty when all is as it must be.
    std::string problem() {
        for (const auto& id : kIds) {
            const auto file = world_->store.fileWithId(id);
            if (!file || !world_->downloads.isFileDownloaded(*file)) continue;
            const auto bytes = contentsOf(world_->cachePath(file)).value_or("");
            const auto expected = editing_.contains(id) ? editing_[id] : contents_[file->UploadName.str()];
            if (bytes != expected)
                return id + " holds '" + bytes + "' instead of '" + expected + "' " + file->UploadName.str();
        }
        for (const auto& [id, bytes] : unsent_) {
            if (!isOnDisk(bytes)) return "'" + bytes + "' of " + id + " is gone";
        }
        if (!damaged_ && KeptFiles::count(world_->layout) > 0) return "bytes were put aside without need";
        return problem_;
    }
    /// Everything that was closed reaches the service, or the user finds it among the kept files.
    std::string settle() {
        for (const auto& id : kIds) {
            if (editing_.contains(id)) endEdit(id);
        }
        for (int i = 0; i < 20; ++i) {
            world_->settle();
            send();
        }
        mergeAll();
        for (const auto& [id, bytes] : unsent_) {
            if (!isKept(bytes)) return "'" + bytes + "' of " + id + " was not sent";
        }
        return problem();
    }
    [[nodiscard]] const std::string& steps() const { return steps_; }

  private:
    struct Remote {
        std::string uploadName;
        int tick = 0;
    };

    std::size_t pick(std::size_t count) { return random_() % count; }
    void note(const std::string& what) { steps_ += what + "; "; }
    /// Unique, of few sizes.
    std::string someBytes() { return "bytes" + std::to_string(10'000 + ++made_) + std::string(pick(3), '.'); }

    void begin() {
        world_ = std::make_unique<ConnectorWorld>();
        world_->pretendLoggedIn();
        if (contents_.empty()) world_->addShare("s1");
        world_->loader.when(urlContains("read.aspx")).answer([this](const UrlRequest& request) {
            between();
            const auto found = contents_.find(header(request, "fileName").value());
            if (found == contents_.end() || !sent_.contains(found->first))
                return UrlReply{.status = 404, .error = {}, .body = {}};
            return serving(found->second)(request);
        });
    }
    /// What may happen while a reply is on its way.
    void between() {
        const std::string id = kIds[pick(kIds.size())];
        const auto what = pick(4);
        if (what == 0) changeRemotely(id), merge(id);
        if (what == 1) editing_.contains(id) ? endEdit(id) : beginEdit(id);
    }

    void changeRemotely(const std::string& id) {
        const std::string name = "U" + std::to_string(++made_);
        contents_[name] = someBytes();
        sent_.insert(name);
        remote_[id] = {name, ++tick_};
    }
    void merge(const std::string& id) {
        auto record = std::make_shared<TWVirtualFile>();
        record->ShareId = record->ParrentId = "s1";
        record->InternalName = id;
        record->PublicName = id + ".bin";
        record->UploadName = record->UploadUrl = remote_[id].uploadName;
        record->Tick = remote_[id].tick;
        record->IsFile = true;
        record->AllocationSize = record->EndOfFile =
            static_cast<std::int64_t>(contents_[remote_[id].uploadName].size());
        world_->store.remoteChanges().updateFiles({record}, tick_, world_->store.shareWithId("s1"));
    }
    void mergeAll() {
        for (const auto& id : kIds)
            merge(id);
    }

    void read(const std::string& id) {
        const auto file = world_->store.fileWithId(id);
        if (!file || world_->downloads.isFileDownloaded(*file)) return;
        const std::string name = file->UploadName.str();
        const auto bytes = world_->downloads.downloadFileChunk(file, 0, 100);
        if (bytes && *bytes != contents_[name]) problem_ = "read '" + *bytes + "' of " + name;
    }
    void download(const std::string& id) {
        if (const auto file = world_->store.fileWithId(id)) world_->downloads.downloadFile(file);
        world_->downloads.runOneDownload();
    }

    /// As the drive does it.
    void beginEdit(const std::string& id) {
        auto& store = world_->store;
        LocalChange change(store);
        const auto file = store.fileWithId(id);
        if (!file || !world_->downloads.isFileDownloaded(*file) || store.admitChange() != 0) return;
        file->LocallyUpdated = true;
        store.markChanged(*file);
        if (change.commit() != 0) {
            file->LocallyUpdated.reset();
            return;
        }
        const auto path = world_->cachePath(file);
        const auto version = ContentVersion::edited(file->UploadName.view());
        if (version.set(path) != 0) problem_ = "cannot stamp " + path;
        // From here on the user's former bytes are what he has let go.
        unsent_.erase(id);
        editing_[id] = someBytes();
        std::ofstream(path, std::ios::binary | std::ios::trunc) << editing_[id];
    }
    void endEdit(const std::string& id) {
        auto& store = world_->store;
        const auto change = store.beginLocalChange();
        const auto file = store.fileWithId(id);
        std::ofstream last(world_->cachePath(file), std::ios::binary | std::ios::app);
        // The disk may be full.
        if (last << "!" << std::flush) editing_[id] += "!";
        unsent_[id] = editing_[id];
        editing_.erase(id);
        file->AllocationSize = file->EndOfFile = static_cast<std::int64_t>(unsent_[id].size());
        file->LocallyUpdated.reset();
        store.journal().addChangeToJournal(store.journal().createJournalForFile(file, kJournalUpdate));
        contents_[file->UploadName.str()] = unsent_[id];
    }
    void send() {
        auto& store = world_->store;
        auto& journal = store.journal();
        const auto lock = store.beginWriteJournal();
        const auto entries = journal.journalItems();
        if (entries.empty()) return;
        const auto entry = *entries.begin();
        if (entry->CopyingFile.value_or(false)) return;
        const std::string id = entry->File->InternalName.str();
        const std::string name = entry->File->UploadName.str();
        const auto source = openUploadFileForReading(store, entry, [] { return false; });
        if (source.state == UploadSource::State::kUnreadable) return;
        if (source.state == UploadSource::State::kOpen) {
            std::string bytes(fs::file_size("/proc/self/fd/" + std::to_string(source.file.get())), ' ');
            if (!readRange(source.file.get(), 0, bytes) || bytes != contents_[name])
                problem_ = "sent '" + bytes + "' as " + name + ", '" + contents_[name] + "'";
            sent_.insert(name);
            remote_[id] = {name, ++tick_};
            // As another item's, perhaps: cache files that were swapped while they were edited.
            std::erase_if(unsent_, [&](const auto& unsent) { return unsent.second == bytes; });
        }
        const TWVirtualFile sent = *entry->File;
        {
            const auto change = store.beginLocalChange();
            if (source.state == UploadSource::State::kOpen) journal.contentsSent(*entry);
            journal.deleteJournalEntry(entry);
        }
        journal.removeUploadFileData(sent);
    }
    void expire() {
        world_->clock.advance(std::chrono::hours(5));
        world_->downloads.checkDownloadsToDelete(4);
    }
    void fullDisk(const std::string& id) {
        note("full disk");
        const FileSizeLimit full(1);
        switch (pick(4)) {
            case 0:
                return note("merge " + id), changeRemotely(id), merge(id);
            case 1:
                return note("read " + id), read(id);
            case 2:
                return note("expire"), expire();
            default:
                return note("edit " + id), editing_.contains(id) ? void() : beginEdit(id);
        }
    }

    /// The process ends here; another one begins with what is on the disk.
    void kill() {
        const auto former = std::move(world_);
        begin();
        const auto data = world_->folder.path("data");
        fs::remove_all(data);
        if (std::system(("cp -a '" + former->folder.path("data") + "' '" + data + "'").c_str()) != 0)
            problem_ = "cannot copy";
        world_->clock.advance(former->clock.now() - world_->clock.now());
        for (const auto& [id, bytes] : std::exchange(editing_, {}))
            unsent_[id] = bytes;
        harm(data + "/Tarnwell");
        auto& store = world_->store;
        store.persistence().load();
        for (const auto& entry : store.journal().journalItems()) {
            // What was under way, or in doubt, is journalled with the bytes that are here.
            const auto file = store.fileWithId(entry->File->InternalName.view());
            const auto [known, isNew] = contents_.try_emplace(entry->File->UploadName.str());
            if (isNew && file) known->second = contentsOf(world_->cachePath(file)).value_or("");
        }
        if (!store.shareWithId("s1")) world_->addShare("s1");
        if (damaged_) mergeAll();
    }
    void harm(const std::string& root) {
        const auto what = pick(8);
        // Unsent bytes that somebody gives to another item are sent as that item's.
        if (what > 2 || (what == 1 && !unsent_.empty())) return;
        note(what == 0 ? "without share file" : what == 1 ? "swapped" : "cut log");
        damaged_ = true;
        if (what == 0) fs::remove(root + "/share_s1.db");
        const auto at = [&](const char* id) { return root + "/Files/s1/" + id; };
        if (what == 1 && fs::exists(at("Fa")) && fs::exists(at("Fb"))) {
            fs::rename(at("Fa"), at("x"));
            fs::rename(at("Fb"), at("Fa"));
            fs::rename(at("x"), at("Fb"));
        }
        if (what == 2) {
            for (const auto& entry : fs::directory_iterator(root)) {
                const bool isLog = entry.path().filename().string().starts_with("changes-");
                if (isLog) fs::resize_file(entry.path(), entry.file_size() / 2);
            }
        }
    }

    [[nodiscard]] bool isIn(const std::string& folder, const std::string& bytes) const {
        std::error_code error;
        for (fs::recursive_directory_iterator it(folder, error), end; !error && it != end;
             it.increment(error)) {
            if (it->is_regular_file(error) && contentsOf(it->path()) == bytes) return true;
        }
        return false;
    }
    [[nodiscard]] bool isKept(const std::string& bytes) const {
        return isIn(KeptFiles::folderIn(world_->layout), bytes);
    }
    [[nodiscard]] bool isOnDisk(const std::string& bytes) const {
        return isIn(world_->layout.filesCachePath(), bytes) ||
               isIn(world_->layout.uploadsCachePath(), bytes) || isKept(bytes);
    }

    std::mt19937 random_;
    std::unique_ptr<ConnectorWorld> world_;
    std::map<std::string, std::string> contents_;  ///< by upload name; what the user journalled as well
    std::set<std::string> sent_;                   ///< names that the service has
    std::map<std::string, Remote> remote_;
    std::map<std::string, std::string> editing_;  ///< bytes of files that are open for writing
    std::map<std::string, std::string>
        unsent_;  ///< the last bytes that were closed, until the service has them
    int made_ = 0, tick_ = 0;
    bool damaged_ = false;
    std::string steps_, problem_;
};

TEST(ContentsModelTest, nobodyGetsOtherBytesAndNothingUnsentIsLost) {
    const unsigned first = testing::seed();
    const int count = testing::rounds(10);
    for (int round = 0; round < count; ++round) {
        const unsigned seed = first + static_cast<unsigned>(round);
        SCOPED_TRACE(testing::replayWith(seed));
        ContentsModel model(seed);
        for (int step = 0; step < 80; ++step) {
            model.step();
            const auto problem = model.problem();
            ASSERT_EQ(problem, "") << model.steps();
        }
        const auto problem = model.settle();
        ASSERT_EQ(problem, "") << model.steps();
    }
}

}  // namespace
}  // namespace tarnwell::testing
