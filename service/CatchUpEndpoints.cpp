#include <algorithm>
#include <array>

#include "connector/OSXCatchUpResponse.h"
#include "service/Endpoints.h"
#include "service/ServiceError.h"
#include "util/RecordMapping.h"

namespace tarnwell::service {

namespace {

/// The most records in one page. Clients ask for this many and go on at their start tick plus this number; as
/// ticks of a share differ, a page of all records above a tick holds every record within the next
/// `kLargestPage` ticks, so that nothing is skipped however far apart the ticks are.
constexpr std::int32_t kLargestPage = 10'000;

/// The page as JSON, its records one by one: a page of thousands needs no memory but for its text.
std::string pageText(OSXCatchUpResponse page) {
    std::vector<TWVirtualFilePtr> records;
    records.swap(page.TwVirtualFiles);
    std::string text = toJsonText(page);
    const auto hole = text.find("[]") + 1;
    const std::string rest = text.substr(hole);
    text.resize(hole);
    text.reserve(text.size() + rest.size() + records.size() * 850);
    std::array<unsigned char, 16 * 1024> buffer;
    boost::json::monotonic_resource memory(buffer.data(), buffer.size());
    boost::json::serializer serializer;
    std::array<char, 4096> piece;
    for (const auto& record : records) {
        if (text.back() != '[') text += ',';
        {
            const boost::json::object object = toJson(*record, &memory);
            serializer.reset(&object);
            while (!serializer.done())
                text += serializer.read(piece.data(), piece.size());
        }
        memory.release();
    }
    return text += rest;
}

Reply catchUp(MetadataStore& store, const Request& request) {
    const std::string& shareId = request.needHeader("share");
    const auto from = parseInt32(request.needHeader("tickfrom"));
    const auto take = parseInt32(request.needHeader("ticktake"));
    if (!from || !take || *take < 1)
        throw HttpError(400, "\"tickfrom\" or \"ticktake\" is not a valid number");
    const AccessRight right = needRight(store, request.needDecodedHeader("token"));
    const auto share = store.shareWithId(shareId);
    if (!share || share->domainId != request.domain->id) throw HttpError(404, "no such share");
    if (right.shareId != shareId) throw HttpError(403, "the token is not for this share");
    const std::string uploadUrl = "https://filecache01." + request.domain->address + "/clientfileapi.ashx";
    auto page = store.changesSince(shareId, *from, std::min(*take, kLargestPage), uploadUrl);
    if (!page) throw HttpError(404, "no such share");
    return Reply::json(pageText(std::move(*page)));
}

}  // namespace

AccessRight needRight(MetadataStore& store, std::string_view token) {
    auto right = store.rightOfToken(token);
    if (!right) throw HttpError(403, "the token is not valid");
    return std::move(*right);
}

std::vector<Endpoint> catchUpEndpoints(MetadataStore& store) {
    return {{HostRole::gateway, "/catchup7.aspx", "POST", 16 * 1024,
             [&store](const Request& request) { return catchUp(store, request); }}};
}

}  // namespace tarnwell::service
