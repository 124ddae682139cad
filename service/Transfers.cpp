#include "service/Transfers.h"

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

/// Thrown inside the transaction that would give a name to contents a second time.
struct NameTaken {};

}  // namespace

Transfers::Announced Transfers::announce(const AccessRight& right, std::int32_t event,
                                         const TWVirtualFile& record) {
    const Author author{right.deviceId, right.email};
    const bool create = event == kJournalCreate;
    const std::string token = randomToken();
    TransferInfo info{digestOf(token), right.shareId, right.deviceId, event, {}, now(), false};
    const auto settled = [&](const FilePlan& plan) {
        return plan.kind == FilePlan::Kind::refused || plan.kind == FilePlan::Kind::place ||
               sizeOf(record) == 0;
    };

    FilePlan plan;
    store_.view(right.shareId, [&](ShareView& view) { plan = planFile(view, author, create, record); });
    if (plan.kind == FilePlan::Kind::refused) return {{plan.code, plan.item}, {}};
    if (!settled(plan)) {
        TWVirtualFile announced = record;
        announced.PublicName = plan.name;
        info.record = toJsonText(announced);
        store_.change(
            right.shareId, [&](ShareChange& change) { change.addTransfer(info); },
            MetadataStore::Durability::process);
        auto view = std::make_shared<TWVirtualFile>(plan.item ? *plan.item : record);
        view->InternalName = plan.identity;
        view->ParrentId = plan.parent;
        view->PublicName = plan.name;
        return {{plan.code, std::move(view)}, token};
    }

    info.record = toJsonText(record);
    info.done = true;
    EventResult result;
    store_.change(right.shareId, [&](ShareChange& change) {
        plan = planFile(change, author, create, record);
        // Overtaken by another device's change: the client asks again.
        if (!settled(plan)) throw HttpError(503, "the item changed meanwhile");
        result = applyFile(change, author, plan, record, nullptr);
        if (plan.kind != FilePlan::Kind::refused) change.addTransfer(info);
    });
    return {result, plan.kind == FilePlan::Kind::refused ? std::string() : token};
}

TWFileChunkUploadResponse Transfers::take(const Chunk& chunk, const std::string& domainId) {
    TWFileChunkUploadResponse reply;
    reply.ResponseCode = kFailed;
    const auto live = find(digestOf(chunk.token), domainId);
    if (!live) return reply;
    const std::lock_guard lock(live->lock);
    if (live->ended) return reply;
    if (live->info.done) {
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

    rewind(*live, *partial, chunk.position);
    partial->write(chunk.position, chunk.bytes);
    live->formerPosition = live->received;
    live->formerHash = ContentHash(live->hash);
    const bool whole = length == size;
    if (!whole) live->hash.update(chunk.bytes);
    live->received += length;
    reply.Position = live->received;
    if (now() - live->info.touched > kTouchEvery) {
        store_.touchTransfer(live->info.digest);
        live->info.touched = now();
    }
    reply.ResponseCode =
        live->received == size ? complete(*live, *partial, whole ? chunkHash : std::string()) : kStored;
    return reply;
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
    bool needless = false;
    for (;;) {
        if (!partial.publish(contents.uploadName)) {
            contents.uploadName = newUploadName();
            continue;
        }
        try {
            store_.change(live.info.shareId, [&](ShareChange& change) {
                const auto plan = planFile(change, author, create, live.record);
                if (plan.kind == FilePlan::Kind::refused)
                    throw HttpError(409, "the item or its folder is gone");
                if (plan.kind != FilePlan::Kind::place && change.hasContents(contents.uploadName))
                    throw NameTaken();
                applyFile(change, author, plan, live.record, &contents);
                needless = plan.kind == FilePlan::Kind::place;
                change.finishTransfer(live.info.digest);
            });
            break;
        } catch (const NameTaken&) {
            contents.uploadName = newUploadName();
        }
    }
    live.info.done = true;
    partial.drop();
    if (needless) contents_.remove(contents.uploadName);
    return kComplete;
}

}  // namespace tarnwell::service
