#include "service/ChangeWorld.h"

#include <cctype>
#include <cstdio>
#include <set>

#include "connector/ClientApiRecords.h"
#include "service/Names.h"
#include "util/Hash.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::service::testing {

namespace {

const char* const kCache = "filecache01.alpha.localhost";

}  // namespace

std::string escaped(std::string_view text) {
    std::string out;
    for (const char c : text) {
        char piece[4];
        std::snprintf(piece, sizeof piece, "%%%02X", static_cast<unsigned char>(c));
        out += std::isalnum(static_cast<unsigned char>(c)) ? std::string(1, c) : std::string(piece);
    }
    return out;
}

TWVirtualFile ChangeWorld::Device::file(const std::string& name, const std::string& contents) const {
    TWVirtualFile record;
    record.ShareId = record.ParrentId = share;
    record.PublicName = name;
    record.InternalName = newInternalName();
    record.Tick = -1;
    record.IsFile = true;
    record.LastWriteTime = record.CreationTime = dateWithTicks(636'000'000'000'000'000);
    record.AllocationSize = record.EndOfFile = 0;
    return contents.empty() ? record : edited(record, contents);
}

TWVirtualFile ChangeWorld::Device::folder(const std::string& name, const std::string& parent) const {
    TWVirtualFile record = file(name, "");
    record.IsFile = false;
    if (!parent.empty()) record.ParrentId = parent;
    return record;
}

TWVirtualFile ChangeWorld::Device::edited(TWVirtualFile record, const std::string& contents) {
    record.UploadName = contents.empty() ? SharedString() : SharedString(newUploadName());
    record.FilehHash = hashText(contents);
    record.AllocationSize = record.EndOfFile = static_cast<std::int64_t>(contents.size());
    return record;
}

void ChangeWorld::SetUp() {
    serve();
    one_ = device();
    two_ = device();
}

ChangeWorld::Device ChangeWorld::device(const std::string& email, const std::string& password) {
    const auto token = shareTokens("alpha.localhost", email, password).at("Docs");
    return {token, docs_.id, metadata().rightOfToken(token)->deviceId};
}

HttpsReply ChangeWorld::eventReply(const Device& device, std::int32_t type, const TWVirtualFile& record) {
    TWFileJournalEvent event;
    event.TransmitId = generateGUID();
    event.UserOrigin = "anna@alpha.test";
    event.ClientJournalEventType = type;
    event.TwVirtualFile = std::make_shared<TWVirtualFile>(record);
    event.ShareToken = escaped(device.token);
    return wire().post(kCache, "/clientfileapi.ashx",
                       {"isRequest: true", "Content-Type: application/x-www-form-urlencoded"},
                       "Request=" + escaped(toJsonText(event)));
}

TWFileJournalResponse ChangeWorld::event(const Device& device, std::int32_t type,
                                         const TWVirtualFile& record) {
    const auto http = eventReply(device, type, record);
    std::string error;
    const auto reply = parseRecord<TWFileJournalResponse>(std::string_view(http.body), error);
    EXPECT_TRUE(reply) << http.status << " " << http.body << http.error << error;
    return reply ? *reply : TWFileJournalResponse{};
}

HttpsReply ChangeWorld::chunkReply(const std::string& token, std::int64_t position, const std::string& bytes,
                                   const std::string& hash, std::int64_t size) {
    return wire().post(
        kCache, "/clientfileapi.ashx",
        {"token: " + token, "position: " + std::to_string(position),
         "size: " + std::to_string(size < 0 ? static_cast<std::int64_t>(bytes.size()) : size),
         "hash: " + (hash.empty() ? hashText(bytes) : hash), "Content-Type: application/octet-stream"},
        bytes);
}

int ChangeWorld::chunk(const std::string& token, std::int64_t position, const std::string& bytes) {
    const auto http = chunkReply(token, position, bytes);
    std::string error;
    const auto reply = parseRecord<TWFileChunkUploadResponse>(std::string_view(http.body), error);
    return reply ? reply->ResponseCode : -static_cast<int>(http.status);
}

std::string ChangeWorld::send(const Device& device, std::int32_t type, const TWVirtualFile& record,
                              const std::string& contents) {
    const auto reply = event(device, type, record);
    std::string codes = std::to_string(reply.ResponseCode);
    if (!reply.TransmitToken || contents.empty()) return codes;
    int last = -1;
    constexpr std::size_t kChunk = 1 << 20;
    for (std::size_t at = 0; at < contents.size() && last != 2; at += kChunk)
        last = chunk(*reply.TransmitToken, static_cast<std::int64_t>(at), contents.substr(at, kChunk));
    return codes + ":" + std::to_string(last);
}

HttpsReply ChangeWorld::clientApi(const std::string& token, const std::string& method,
                                  const std::string& request, const std::string& path) {
    const RequestCommand command{token, "anna@alpha.test", method, std::nullopt, std::nullopt};
    return wire().post("clientgateway.alpha.localhost", path,
                       {"command: " + toJsonText(command), "request: " + request}, "");
}

std::string ChangeWorld::tree() {
    std::string error;
    const auto page = parseRecord<OSXCatchUpResponse>(
        std::string_view(catchUpReply("alpha.localhost", docs_.id, one_.token, "-1").body), error);
    if (!page) return error;
    std::map<std::string, TWVirtualFilePtr> items;
    for (const auto& item : page->TwVirtualFiles)
        if (!item->Deleted) items[item->InternalName.str()] = item;
    std::set<std::string> lines;
    for (const auto& [id, item] : items) {
        std::string path = item->PublicName.str();
        for (std::string above = item->ParrentId.str(); above != docs_.id;) {
            const auto folder = items.find(above);
            if (folder == items.end()) return "an item without its folder: " + path;
            path = folder->second->PublicName.str() + "/" + path;
            above = folder->second->ParrentId.str();
        }
        if (!item->IsFile) {
            lines.insert(path + "/");
        } else if (item->UploadName.empty()) {
            lines.insert(path + "=");
        } else {
            const auto bytes =
                readReply("alpha.localhost", one_.token, item->UploadName.str(), "0", "100000000");
            EXPECT_EQ(hashText(bytes.body), item->FilehHash.view()) << path << " " << bytes.status;
            lines.insert(path + "=" + (bytes.body.size() < 50 ? bytes.body : "..."));
        }
    }
    std::string text;
    for (const auto& line : lines)
        text += (text.empty() ? "" : "\n") + line;
    return text;
}

TWVirtualFilePtr ChangeWorld::known(std::string_view internalName) {
    TWVirtualFilePtr item;
    metadata().view(docs_.id, [&](ShareView& view) { item = view.find(internalName); });
    return item;
}

}  // namespace tarnwell::service::testing
