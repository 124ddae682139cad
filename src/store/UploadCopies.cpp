#include "store/UploadCopies.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <mutex>
#include <system_error>
#include <utility>

#include "store/FileCopy.h"
#include "store/TWMetadataStorage.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"
#include "util/TWUtils.h"

namespace tarnwell {

namespace fs = std::filesystem;

namespace {

/// No upload name begins so.
constexpr std::string_view kTemporaryPrefix = ".copying-";
/// A file that is being written all the time is copied no more often; its next quiet moment is journalled.
constexpr int kMostTries = 2;
constexpr std::chrono::seconds kStopDeadline{60};

std::string sideFile(const std::string& copy) {
    return copy + ".inf";
}

/// Not synced: nothing depends on it. 0 or errno.
int writeSideFile(const std::string& path, std::string_view text) {
    const OwnedDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!file) return errno;
    while (!text.empty()) {
        const auto count = ::write(file.get(), text.data(), text.size());
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) return count < 0 ? errno : ENOSPC;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
    return 0;
}

/// What an earlier run did not finish.
void removeLeftovers(const std::string& uploads, const std::string& runId) {
    std::error_code error;
    fs::directory_iterator it(uploads, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        const std::string name = it->path().filename().string();
        const bool leftover = name.starts_with(kTemporaryPrefix) &&
                              !std::string_view(name).substr(kTemporaryPrefix.size()).starts_with(runId);
        if (leftover) ::unlink(it->path().c_str());
    }
}

}  // namespace

struct UploadCopies::Job {
    LocalJournalPtr entry;
    std::string internalName, shareId, publicName, uploadName;
    std::string temporary, target, text;
    std::atomic<bool> cancelled{false};
    std::shared_ptr<void> block;  ///< of the shutdown, until the job is done or dropped
};

/// Jobs that wait for one task. Belongs to that task: they go with it.
struct UploadCopies::Line {
    explicit Line(std::shared_ptr<Job> first) { waiting.push_back(std::move(first)); }

    /// False when the task is at its end.
    bool join(std::shared_ptr<Job> job) {
        const std::lock_guard lock(mutex);
        if (ended) return false;
        waiting.push_back(std::move(job));
        return true;
    }
    /// Null at the end.
    std::shared_ptr<Job> next() {
        const std::lock_guard lock(mutex);
        ended = waiting.empty();
        if (ended) return nullptr;
        auto job = std::move(waiting.front());
        waiting.pop_front();
        return job;
    }

    std::mutex mutex;
    // Guarded by mutex.
    std::deque<std::shared_ptr<Job>> waiting;
    bool ended = false;
};

/// Lets tasks reach the owner while it lives.
struct UploadCopies::Gate {
    explicit Gate(UploadCopies& copies) : owner(&copies) {}
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    template <class Call>
    void enter(Call call) {
        UploadCopies* entered = nullptr;
        {
            const std::lock_guard lock(mutex);
            if (!owner) return;
            ++inside;
            entered = owner;
        }
        struct Leave {
            Gate& gate;
            ~Leave() {
                const std::lock_guard lock(gate.mutex);
                --gate.inside;
                gate.left.notify_all();
            }
        } const leave{*this};
        call(*entered);
    }

    void close() {
        std::unique_lock lock(mutex);
        owner = nullptr;
        closed = true;
        if (!left.wait_for(lock, kStopDeadline, [this] { return inside == 0; }))
            TWLog(kLogMain, "Warning! A copy to the upload location does not end.");
    }

    std::mutex mutex;
    std::condition_variable left;
    // Guarded by mutex.
    UploadCopies* owner;
    int inside = 0;

    std::atomic<bool> closed{false};  // polled by running copies
};

UploadCopies::UploadCopies(TWMetadataStorage& store, Executor& background, Host& host)
    : store_(store),
      background_(background),
      host_(host),
      runId_(generateGUID()),
      gate_(std::make_shared<Gate>(*this)) {
    background_.async(
        [uploads = store.layout().uploadsCachePath(), id = runId_] { removeLeftovers(uploads, id); });
}

UploadCopies::~UploadCopies() {
    gate_->close();
}

void UploadCopies::start(const LocalJournalPtr& entry) {
    const TWVirtualFile& file = *entry->File;
    auto job = std::make_shared<Job>();
    job->entry = entry;
    job->internalName = file.InternalName.str();
    job->shareId = file.ShareId.str();
    job->publicName = file.PublicName.str();
    job->uploadName = file.UploadName.str();
    job->target = store_.layout().cachePathForUpload(file);
    job->temporary =
        store_.layout().uploadsCachePath() + "/" + std::string(kTemporaryPrefix) + runId_ + job->uploadName;
    job->text = toJsonText(*entry);
    jobs_[job->uploadName] = job;

    store_.blockShutdown();
    job->block = std::shared_ptr<void>(nullptr, [gate = gate_](void*) {
        gate->enter([](UploadCopies& owner) { owner.store_.unblockShutdown(); });
    });
    if (file.size() >= kSyncedCopy) {
        background_.async(
            [gate = gate_, job] { gate->enter([&](UploadCopies& owner) { owner.run(*job); }); });
        return;
    }
    if (const auto line = line_.lock(); line && line->join(job)) return;
    const auto line = std::make_shared<Line>(job);
    line_ = line;
    background_.async([gate = gate_, line] {
        while (const auto next = line->next())
            gate->enter([&](UploadCopies& owner) { owner.run(*next); });
    });
}

void UploadCopies::release(const TWVirtualFile& file) {
    if (file.UploadName.empty()) return;
    TWLog(kLogMain, "Deleting upload data for file %@", file.FullPath ? file.FullPath : file.PublicName);
    if (const auto it = jobs_.find(file.UploadName.str()); it != jobs_.end()) it->second->cancelled = true;
    const std::string copy = store_.layout().cachePathForUpload(file);
    ::unlink(copy.c_str());
    ::unlink(sideFile(copy).c_str());
}

void UploadCopies::run(Job& job) {
    TWLog(kLogMain, "Copying file %@ (share %@) for upload to %@", job.internalName, job.shareId,
          job.uploadName);
    std::string problem;
    std::int64_t size = -1;
    try {
        const auto cancelled = [&] { return job.cancelled || gate_->closed; };
        const auto source = openSource(job);
        FileCopyResult result;
        result.error = std::make_error_code(std::errc::no_such_file_or_directory);
        for (int attempt = 0; source && attempt < kMostTries; ++attempt) {
            if (attempt > 0) ::unlink(job.temporary.c_str());
            result = copyFileContents(source.get(), job.temporary, cancelled);
            if (result.error || !result.sourceChanged) break;
        }
        if (result.error) {
            problem = result.error.message();
        } else {
            size = result.size;
            // Old bytes beside new ones are nobody's version; what changed them is journalled in its turn.
            if (result.sourceChanged || !isStillVersion(source.get(), job)) job.cancelled = true;
            const int error = writeSideFile(sideFile(job.temporary), job.text);
            if (error != 0) problem = std::generic_category().message(error);
        }
    } catch (const std::exception& error) {
        problem = error.what();
    }
    finish(job, problem, size);
    if (size >= kSyncedCopy) syncFolder(store_.layout().uploadsCachePath());
}

/// The item that has the bytes now: an exchange may have given them another identity. REQUIRES LOCK.
std::string UploadCopies::itemOf(const Job& job) const {
    const auto entry = host_.entryWithUpload(job.uploadName);
    return entry ? entry->File->InternalName.str() : job.internalName;
}

/// The cache file, while it has the version that is to be sent.
OwnedDescriptor UploadCopies::openSource(Job& job) const {
    const auto lock = store_.beginReadStorage();
    auto state = TWMetadataStorage::OpenedVersion::kGone;
    auto opened = store_.openVersion(itemOf(job), job.uploadName, state);
    if (state == TWMetadataStorage::OpenedVersion::kEdited) job.cancelled = true;
    return opened;
}

bool UploadCopies::isStillVersion(int source, const Job& job) const {
    const auto lock = store_.beginReadStorage();
    return store_.isStillVersion(source, itemOf(job), job.uploadName);
}

/// Gives the copy its name. Under the lock, so that a release comes either before or after.
bool UploadCopies::place(Job& job, std::string& problem) const {
    // The side file first: a copy that is there has one.
    if (std::rename(sideFile(job.temporary).c_str(), sideFile(job.target).c_str()) == 0 &&
        std::rename(job.temporary.c_str(), job.target.c_str()) == 0) {
        return true;
    }
    problem = std::generic_category().message(errno);
    ::unlink(sideFile(job.target).c_str());
    return false;
}

void UploadCopies::finish(Job& job, std::string_view problem, std::int64_t size) {
    const auto lock = store_.beginReadStorage();
    std::string reason(problem);
    bool placed = false;
    if (job.cancelled) {
        TWLog(kLogMain, "File %@ was changed during copying to upload location %@ - deleting it",
              job.internalName, job.uploadName);
        size = -1;
    } else if (gate_->closed) {
        size = -1;
    } else if (reason.empty() && (placed = place(job, reason))) {
        TWLog(kLogMain, "File %@ copied to upload location.", job.publicName);
    } else {
        TWLog(kLogMain, "Warning! Cannot copy file %@ to upload path %@. Error %@", job.internalName,
              job.target, reason);
        size = -1;
    }
    if (!placed) {
        ::unlink(job.temporary.c_str());
        ::unlink(sideFile(job.temporary).c_str());
    }
    job.entry->CopyingFile.reset();
    if (const auto it = jobs_.find(job.uploadName); it != jobs_.end() && it->second.get() == &job)
        jobs_.erase(it);
    host_.copyEnded(job.uploadName, size);
    job.block.reset();
}

}  // namespace tarnwell
