#include "service/Transfers.h"

#include <algorithm>
#include <vector>

#include "service/Names.h"
#include "service/ServiceError.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"

namespace tarnwell::service {

namespace {

/// Transfers whose running hash is kept in memory. Others are hashed again when their next chunk comes.
constexpr std::size_t kMaxLive = 4096;
constexpr std::size_t kHashStep = 1 << 20;
/// A transfer in use is noted so in the store no oftener.
constexpr std::chrono::minutes kTouchEvery{30};

Date now() {
    return std::chrono::floor<TickDuration>(std::chrono::system_clock::now());
}

std::int64_t sizeOf(const TWVirtualFile& record) {
    return record.AllocationSize.value_or(record.EndOfFile.value_or(0));
}

/// Nothing of the contents is needed.
bool isHere(const FilePlan& plan) {
    return plan.kind == FilePlan::Kind::place || plan.kind == FilePlan::Kind::past;
}

/// Thrown inside the transaction that would give a name to contents a second time.
struct NameTaken {};

}  // namespace

/// planFile(), but contents whose bytes are missing from the store are sent again.
FilePlan Transfers::plan(ShareView& view, const Author& author, bool create, const TWVirtualFile& record) {
    auto plan = planFile(view, author, create, record);
    if (plan.kind == FilePlan::Kind::place && plan.item->size() > 0 &&
        contents_.sizeOf(plan.item->UploadName.view()) != plan.item->size()) {
        plan.kind = FilePlan::Kind::update;
    }
    return plan;
}

Transfers::Announced Transfers::announce(const AccessRight& right, std::int32_t event,
                                         const TWVirtualFile& record) {
    const Author author{right.deviceId, right.email};
    const bool create = event == kJournalCreate;
    const std::string token = randomToken();
    TransferInfo info{digestOf(token), right.shareId, right.deviceId, event, {}, now(), false};
    const auto settled = [&](const FilePlan& plan) {
        return plan.kind == FilePlan::Kind::refused || isHere(plan) || sizeOf(record) == 0;
    };

    FilePlan planned;
    store_.view(right.shareId, [&](ShareView& view) { planned = plan(view, author, create, record); });
    if (planned.kind == FilePlan::Kind::refused) return {{planned.code, planned.item}, {}};
    if (!settled(planned)) {
        if (!space_.promise(info.digest, sizeOf(record)))
            throw StorageFullError("no room for an upload of " + std::to_string(sizeOf(record)) + " bytes");
        TWVirtualFile announced = record;
        announced.PublicName = planned.name;
        info.record = toJsonText(announced);
        try {
            store_.change(
                right.shareId, [&](ShareChange& change) { change.addTransfer(info); },
                MetadataStore::Durability::process);
        } catch (...) {
            space_.end(info.digest);
            throw;
        }
        auto view = std::make_shared<TWVirtualFile>(planned.item ? *planned.item : record);
        view->InternalName = planned.identity;
        view->ParrentId = planned.parent;
        view->PublicName = planned.name;
        return {{planned.code, std::move(view)}, token};
    }

    info.record = toJsonText(record);
    info.done = true;
    EventResult result;
    store_.change(right.shareId, [&](ShareChange& change) {
        planned = plan(change, author, create, record);
        // Overtaken by another device's change: the client asks again.
        if (!settled(planned)) throw HttpError(503, "the item changed meanwhile");
        result = applyFile(change, author, planned, record, nullptr);
        if (planned.kind != FilePlan::Kind::refused) change.addTransfer(info);
    });
    return {result, planned.kind == FilePlan::Kind::refused ? std::string() : token};
}

TWFileChunkUploadResponse Transfers::take(const Chunk& chunk, const std::string& domainId) {
    TWFileChunkUploadResponse reply;
    reply.ResponseCode = kFailed;
    const auto live = find(digestOf(chunk.token), domainId);
    if (!live) return reply;
    const std::lock_guard lock(live->lock);
    if (live->ended) return reply;
    if (live->info.done) {
        store_.change(live->info.shareId, [&](ShareChange& change) { tellAgain(change, live->record); });
        reply.Position = sizeOf(live->record);
        reply.ResponseCode = kComplete;
        return reply;
    }
    const auto partial = contents_.partial(live->info.digest);
    const std::int64_t size = sizeOf(live->record);
    const auto length = static_cast<std::int64_t>(chunk.bytes.size());
    // Swept meanwhile, or cut by hand: what is known of the bytes is void.
    if (live->received > partial->size()) live->received = live->formerPosition = -1;
    reply.Position = partial->size();
    if (length == 0 || chunk.size != length || chunk.position > partial->size() ||
        length > size - chunk.position) {
        return reply;
    }
    ContentHash own;
    own.update(chunk.bytes);
    const std::string chunkHash = own.finish();
    if (chunkHash != chunk.hash) return reply;

    const std::int64_t end = chunk.position + length;
    if (!space_.promise(live->info.digest, size - std::min(partial->size(), chunk.position)))
        throw StorageFullError("no room for the next part of an upload");
    const bool late = !takeBytes(*live, *partial, chunk);
    if (now() - live->info.touched > kTouchEvery) {
        store_.touchTransfer(live->info.digest);
        live->info.touched = now();
    }
    reply.Position = end;
    reply.ResponseCode = kStored;
    if (!late && end == size) {
        reply.ResponseCode = complete(*live, *partial, length == size ? chunkHash : std::string());
        space_.end(live->info.digest);
    } else {
        space_.left(live->info.digest, size - partial->size());
    }
    return reply;
}

/// False when the bytes are here already, with others after them. Otherwise `live` is at the chunk's end.
bool Transfers::takeBytes(Live& live, PartialContents& partial, const Chunk& chunk) {
    const auto length = static_cast<std::int64_t>(chunk.bytes.size());
    const std::int64_t end = chunk.position + length;
    std::string here(
        static_cast<std::size_t>(std::clamp<std::int64_t>(partial.size() - chunk.position, 0, length)), '\0');
    const bool same = partial.read(chunk.position, here.data(), here.size()) == here.size() &&
                      chunk.bytes.starts_with(here);
    const std::int64_t size = sizeOf(live.record);
    if (same && end < partial.size() && end < size) return false;

    rewind(live, partial, chunk.position);
    if (same && !here.empty()) {
        if (here.size() < chunk.bytes.size())
            partial.write(partial.size(), chunk.bytes.substr(here.size()));
        else if (end < partial.size())
            partial.cut(end);  // what a write that was cut off left behind the last byte
    } else {
        partial.write(chunk.position, chunk.bytes);
    }
    live.formerPosition = live.received;
    live.formerHash = ContentHash(live.hash);
    if (length != size) live.hash.update(chunk.bytes);
    live.received = end;
    return true;
}

/// The transfer as it stands, from memory or the store; null when there is none here.
Transfers::LivePtr Transfers::find(const std::string& digest, const std::string& domainId) {
    {
        const std::lock_guard lock(lock_);
        if (const auto known = live_.find(digest); known != live_.end()) {
            recent_.splice(recent_.begin(), recent_, known->second->used);
            return known->second;
        }
    }
    auto info = store_.transfer(digest);
    if (!info) return nullptr;
    const auto share = store_.shareWithId(info->shareId);
    if (!share || share->domainId != domainId) return nullptr;
    std::string error;
    const auto record = parseRecord<TWVirtualFile>(std::string_view(info->record), error);
    if (!record) throw ServiceError("a stored transfer is damaged: " + error);
    auto live = std::make_shared<Live>();
    live->info = std::move(*info);
    live->record = *record;

    const std::lock_guard lock(lock_);
    const auto [entry, added] = live_.emplace(digest, live);
    if (added) {
        recent_.push_front(digest);
        entry->second->used = recent_.begin();
    }
    LivePtr found = entry->second;
    if (live_.size() > kMaxLive) {
        // Not one in use: its lock has to stay the only one of its transfer.
        const auto oldest = live_.find(recent_.back());
        if (oldest->second.use_count() == 1) {
            live_.erase(oldest);
            recent_.pop_back();
        }
    }
    return found;
}

void Transfers::forget(const std::string& digest) {
    const std::lock_guard lock(lock_);
    if (const auto known = live_.find(digest); known != live_.end()) {
        recent_.erase(known->second->used);
        live_.erase(known);
    }
}

/// Makes `hash` and `received` speak of the bytes before `position`. A whole upload in order costs no
/// reading.
void Transfers::rewind(Live& live, PartialContents& partial, std::int64_t position) {
    if (live.received == position) return;
    if (live.formerPosition == position && position <= live.received) {
        live.hash = ContentHash(live.formerHash);
    } else {
        // After a restart, or from further back.
        ContentHash hash;
        std::vector<char> buffer(kHashStep);
        for (std::int64_t at = 0; at < position;) {
            const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(kHashStep, position - at));
            const std::size_t got = partial.read(at, buffer.data(), wanted);
            if (got != wanted) throw ServiceError("partial contents ended early");
            hash.update({buffer.data(), got});
            at += static_cast<std::int64_t>(got);
        }
        live.hash = std::move(hash);
    }
    live.received = position;
}

void Transfers::drop(Live& live, PartialContents& partial) {
    live.ended = true;
    forget(live.info.digest);
    store_.dropTransfer(live.info.digest);
    partial.drop();
}

/// All bytes are here; `hash` is theirs, if known. Until the transaction has ended, everything stays as it is
/// for another try.
std::int32_t Transfers::complete(Live& live, PartialContents& partial, std::string hash) {
    if (hash.empty()) hash = ContentHash(live.hash).finish();
    ContentsInfo contents{{}, live.info.shareId, live.received, std::move(hash)};
    if (!live.record.FilehHash.empty() && live.record.FilehHash.view() != contents.hash) {
        drop(live, partial);
        return kCorrupted;
    }
    const auto right = store_.rightOfDevice(live.info.deviceId, live.info.shareId);
    if (!right || right->readOnly) throw HttpError(403, "the right to write has ended");

    const Author author{right->deviceId, right->email};
    const bool create = live.info.event == kJournalCreate;
    contents.uploadName = live.record.UploadName.str();
    // A name that was given before, here or in another share, is not given again.
    if (contents.uploadName.size() < 2 || contents.uploadName.front() != 'U' ||
        !isUploadName(contents.uploadName) || store_.contents(contents.uploadName)) {
        contents.uploadName = newUploadName();
    }
    const auto hold = contents_.hold();
    bool needless = false;
    for (;;) {
        try {
            if (!partial.publish(contents.uploadName)) {
                contents.uploadName = newUploadName();
                continue;
            }
        } catch (const DiskFailedError&) {
            drop(live, partial);
            return kFailed;
        }
        try {
            store_.change(live.info.shareId, [&](ShareChange& change) {
                const auto planned = plan(change, author, create, live.record);
                if (planned.kind == FilePlan::Kind::refused)
                    throw HttpError(409, "the item or its folder is gone");
                needless = isHere(planned);
                if (!needless && change.contents(contents.uploadName)) throw NameTaken();
                applyFile(change, author, planned, live.record, &contents);
                change.finishTransfer(live.info.digest);
            });
            break;
        } catch (const NameTaken&) {
            contents_.remove(contents.uploadName);
            contents.uploadName = newUploadName();
        }
    }
    live.info.done = true;
    partial.drop();
    if (needless) contents_.remove(contents.uploadName);
    return kComplete;
}

}  // namespace tarnwell::service
