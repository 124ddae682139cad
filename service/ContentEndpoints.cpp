#include <algorithm>

#include "service/Endpoints.h"
#include "service/FileApi.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

namespace {

/// Bodies of the file API: a chunk of an upload is the largest, and is at most 1 MiB.
constexpr std::size_t kFileApiBody = (1 << 20) + (64 << 10);

class Contents {
  public:
    Contents(MetadataStore& store, ContentStore& contents, Transfers& transfers)
        : store_(store), contents_(contents), changes_(store, transfers) {}

    [[nodiscard]] Reply read(const Request& request) const {
        const std::string token = request.needDecodedHeader("Token");
        const std::string& name = request.needHeader("fileName");
        const auto position = needInteger(request.needHeader("position"), "position", 0);
        const auto count = needInteger(request.needHeader("chunk"), "chunk", 0);
        return range(request, token, name, position, count);
    }

    /// One address for three kinds of requests, told apart by their headers.
    [[nodiscard]] Reply fileApi(const Request& request) const {
        if (request.header("isRequest")) return changes_.event(request);
        if (request.header("position")) return changes_.chunk(request);
        return readForm(request);
    }

  private:
    [[nodiscard]] Reply readForm(const Request& request) const {
        const auto form = Parameters::parse(request.body);
        const std::string* action = form ? form->find("action") : nullptr;
        if (!action) throw HttpError(400, "the form field \"action\" is missing");
        if (*action != "read") throw HttpError(400, "unknown action");
        const auto need = [&](std::string_view name) -> const std::string& {
            const std::string* value = form->find(name);
            if (!value) throw HttpError(400, "the form field \"" + std::string(name) + "\" is missing");
            return *value;
        };
        const std::string token = request.needDecodedHeader("shareToken");
        const auto position = needInteger(need("position"), "position", 0);
        const auto count = needInteger(need("count"), "count", 0);
        if (needRight(store_, token).shareId != need("shareId")) {
            throw HttpError(403, "the token is not for this share");
        }
        return range(request, token, need("file"), position, count);
    }

    /// The bytes that there are from `position` on, at most `count`. At the very end there are none, which is
    /// no error; beyond it 416.
    [[nodiscard]] Reply range(const Request& request, std::string_view token, const std::string& name,
                              std::int64_t position, std::int64_t count) const {
        const AccessRight right = needRight(store_, token);
        const auto share = store_.shareWithId(right.shareId);
        if (!share || share->domainId != request.domain->id) {
            throw HttpError(403, "the token is not for this domain");
        }
        const auto info = store_.contents(name);
        // Contents of another share are answered as unknown ones: their existence is nobody's business.
        if (!info || info->shareId != right.shareId) throw HttpError(404, "no such file");
        std::shared_ptr<ContentReader> reader = contents_.open(name);
        if (!reader) throw ServiceError("the contents " + name + " are missing");
        if (reader->size() != info->size) throw ServiceError("the contents " + name + " have a wrong size");
        if (position > info->size) throw HttpError(416, "the position is beyond the end of the file");
        Reply reply;
        reply.contentType = "application/octet-stream";
        reply.range = ContentRange{std::move(reader), position, std::min(count, info->size - position)};
        return reply;
    }

    MetadataStore& store_;
    ContentStore& contents_;
    const FileApi changes_;
};

}  // namespace

std::vector<Endpoint> contentEndpoints(MetadataStore& store, ContentStore& contents, Transfers& transfers) {
    const auto handler = std::make_shared<const Contents>(store, contents, transfers);
    return {{HostRole::fileCache, "/read.aspx", "GET", 16 * 1024,
             [handler](const Request& request) { return handler->read(request); }},
            {HostRole::fileCache,
             "/clientfileapi.ashx",
             "POST",
             kFileApiBody,
             [handler](const Request& request) { return handler->fileApi(request); },
             {},
             Lane::writing}};
}

}  // namespace tarnwell::service
