#include "store/ChangeRecorder.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "store/JournalTexts.h"
#include "util/RecordMapping.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kBetweenTries{1};
constexpr std::size_t kMostBases = 4;
/// A change rarely takes more: some forty items with their entries.
constexpr std::size_t kRoomForChange = std::size_t{128} << 10U;

/// 0: there is no such file.
std::uint64_t inodeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

}  // namespace

ChangeRecorder::ChangeRecorder(std::string cacheRoot, const StoreIndex& index,
                               std::function<void()> onFailure)
    : root_(std::move(cacheRoot)),
      index_(index),
      onFailure_(std::move(onFailure)),
      log_(root_, [this] { return opening(); }),
      bases_{{hashOfJournal({}), {}}} {}

ChangeRecorder::~ChangeRecorder() = default;

std::string ChangeRecorder::opening() const {
    PieceWriter piece;
    piece.keys();
    for (const auto& base : bases_)
        piece.journalBase(base);
    return piece.bytes();
}

std::string ChangeRecorder::belowRoot(const std::string& path) const {
    return path.starts_with(root_ + "/") ? path.substr(root_.size() + 1) : std::string();
}

void ChangeRecorder::write(PieceWriter& piece, Pending& pending) const {
    // A share that the saved files may lack comes with the first of its records.
    for (const auto& id : pending.files) {
        const auto file = index_.fileWithId(id.view());
        if (file && !shares_.contains(file->ShareId.view())) pending.shares.insert(file->ShareId);
    }
    for (const auto& id : pending.shares) {
        const auto share = index_.shareWithId(id.view());
        share ? piece.share(toJsonText(*share)) : piece.shareGone(id.view());
    }
    for (const auto& id : pending.files) {
        const auto file = index_.fileWithId(id.view());
        file ? piece.file(*file) : piece.fileGone(id.view());
    }
    for (const auto order : pending.entries) {
        const auto text = journal_ ? journal_->journalText(order) : std::nullopt;
        text ? piece.entry(order, *text) : piece.entryGone(order);
    }
}

int ChangeRecorder::append(const std::vector<CacheExchange>& exchanges) {
    if (pending_.empty() && exchanges.empty()) return 0;
    const auto now = std::chrono::steady_clock::now();
    if (failed_ && now - *failed_ < kBetweenTries) return failure_;
    PieceWriter piece;
    write(piece, pending_);
    for (const auto& exchange : exchanges)
        piece.exchange(exchange);
    if (const int error = log_.append(piece.bytes())) {
        TWLog(kLogMain, "Error! Cannot append to the change log : error %@", std::strerror(error));
        failure_ = error;
        if (!pending_.empty()) incomplete_ = error;
        if (!std::exchange(failed_, now)) onFailure_();
        return error;
    }
    hasChanges_ = true;
    failed_.reset();
    if (underSave_.empty()) incomplete_ = 0;
    files_.recent.insert(pending_.files.begin(), pending_.files.end());
    shares_.recent.insert(pending_.shares.begin(), pending_.shares.end());
    pending_ = {};
    return 0;
}

int ChangeRecorder::appendNow() {
    return append({});
}

int ChangeRecorder::admitChange() {
    if (const int error = append({})) return error;
    // What the running save has to write in the place of the log comes before what changes next.
    if (!underSave_.empty()) return failure_;
    return log_.reserve(kRoomForChange);
}

bool ChangeRecorder::exchangeFiles(const std::vector<std::pair<std::string, std::string>>& pairs,
                                   bool (*exchange)(const std::string&, const std::string&)) {
    std::vector<CacheExchange> intents;
    for (const auto& [a, b] : pairs) {
        CacheExchange intent{belowRoot(a), belowRoot(b), inodeOf(a), inodeOf(b)};
        if (intent.inodeA != 0 || intent.inodeB != 0) intents.push_back(std::move(intent));
    }
    if (intents.empty()) return true;
    if (append(intents) != 0) return false;
    // A cut of the power must not leave the files exchanged and the intent unknown.
    if (const int error = log_.sync()) {
        TWLog(kLogMain, "Error! Cannot sync the change log : error %@", std::strerror(error));
        return false;
    }
    busy_ = true;
    for (std::size_t done = 0; done < pairs.size(); ++done) {
        if (exchange(pairs[done].first, pairs[done].second)) continue;
        while (done-- > 0)
            exchange(pairs[done].first, pairs[done].second);
        return false;
    }
    for (auto& deletion : waiting_.deletions) {
        for (const auto& [a, b] : pairs) {
            if (deletion.path == a || deletion.path == b) {
                deletion.path = deletion.path == a ? b : a;
                break;
            }
        }
    }
    return true;
}

void ChangeRecorder::deleteLater(const std::string& path) {
    if (const auto inode = inodeOf(path)) {
        waiting_.deletions.push_back({path, inode});
        busy_ = true;
    }
}

void ChangeRecorder::afterAppend(std::function<void()> action) {
    waiting_.actions.push_back(std::move(action));
    busy_ = true;
}

void ChangeRecorder::finishHold() noexcept {
    busy_ = false;
    try {
        if (append({}) == 0) return doWaiting(std::exchange(waiting_, {}));
        busy_ = true;  // tried again by the next hold
    } catch (const std::exception& error) {
        incomplete_ = EIO;
        TWLog(kLogMain, "Error! Cannot compose a piece of the change log: %@", error.what());
    }
}

void ChangeRecorder::doWaiting(Waiting waiting) {
    for (const auto& [path, inode] : waiting.deletions) {
        // Another file may stand there by now.
        if (inodeOf(path) != inode || ::unlink(path.c_str()) == 0) continue;
        TWLog(kLogMain, "Warning! Cannot delete cache file %@ : error %@", path, std::strerror(errno));
    }
    for (const auto& action : waiting.actions)
        action();
}

std::uint64_t ChangeRecorder::beginSave() {
    // Tried once more, but a failure that is known asks for no other save: it would come for ever.
    if (failed_) failed_ = std::chrono::steady_clock::time_point();
    if (append({}) == 0) doWaiting(std::exchange(waiting_, {}));
    underSave_ = std::exchange(pending_, {});
    waitingForSave_ = std::exchange(waiting_, {});
    hasChanges_ = false;
    std::uint64_t number = 0;
    // Otherwise the log still names what it named.
    if (!log_.rotate(number)) return number;
    for (auto* logged : {&files_, &shares_}) {
        if (logged->older.empty()) {
            std::swap(logged->older, logged->recent);
        } else {
            logged->older.insert(logged->recent.begin(), logged->recent.end());
            logged->recent.clear();
        }
    }
    return number;
}

void ChangeRecorder::journalTaken(JournalBase base) {
    if (base == bases_.back()) return;
    // While no save succeeds the file is the first of them, or the latest.
    if (bases_.size() > kMostBases) bases_.erase(bases_.begin() + 1);
    bases_.push_back(std::move(base));
    if (log_.empty()) return;
    PieceWriter piece;
    piece.journalBase(bases_.back());
    if (const int error = log_.append(piece.bytes()))
        TWLog(kLogMain, "Error! Cannot append to the change log : error %@", std::strerror(error));
}

void ChangeRecorder::journalReplaced() {
    bases_.erase(bases_.begin(), bases_.end() - 1);
}

void ChangeRecorder::endSave(std::uint64_t number) {
    for (auto* logged : {&files_, &shares_})
        logged->older.clear();
    underSave_ = {};
    doWaiting(std::exchange(waitingForSave_, {}));
    if (pending_.empty()) incomplete_ = 0;
    log_.removeBefore(number);
    if (!hasChanges_ && pending_.empty()) {
        for (auto* logged : {&files_, &shares_})
            logged->recent.clear();
        log_.clear();
    }
}

void ChangeRecorder::abandonSave() {
    pending_.files.insert(underSave_.files.begin(), underSave_.files.end());
    pending_.shares.insert(underSave_.shares.begin(), underSave_.shares.end());
    pending_.entries.insert(underSave_.entries.begin(), underSave_.entries.end());
    underSave_ = {};
    waiting_.deletions.insert(waiting_.deletions.end(), waitingForSave_.deletions.begin(),
                              waitingForSave_.deletions.end());
    waiting_.actions.insert(waiting_.actions.begin(), waitingForSave_.actions.begin(),
                            waitingForSave_.actions.end());
    waitingForSave_ = {};
    busy_ = true;
}

void ChangeRecorder::resume(JournalBase base) {
    bases_ = {std::move(base)};
    suspended_ = false;
}

void ChangeRecorder::clear() {
    pending_ = underSave_ = {};
    for (auto* waiting : {&waiting_, &waitingForSave_}) {
        waiting->actions.clear();
        doWaiting(std::exchange(*waiting, {}));
    }
    for (auto* logged : {&files_, &shares_})
        logged->older = logged->recent = {};
    bases_ = {{hashOfJournal({}), {}}};
    hasChanges_ = false;
    failed_.reset();
    incomplete_ = 0;
    log_.clear();
}

int ChangeRecorder::sync() {
    if (const int error = incomplete_) return error;
    return log_.sync();
}

}  // namespace tarnwell
