#include "service/Http.h"

#include "service/Names.h"
#include "service/ServiceError.h"

namespace tarnwell::service {

const std::string* Request::header(std::string_view name) const {
    const std::string wanted = lowerAscii(name);
    for (const auto& [key, value] : headers) {
        if (key.size() == wanted.size() && lowerAscii(key) == wanted) return &value;
    }
    return nullptr;
}

const std::string& Request::needHeader(std::string_view name) const {
    const std::string* value = header(name);
    if (!value) throw HttpError(400, "the header \"" + std::string(name) + "\" is missing");
    return *value;
}

std::string Request::needDecodedHeader(std::string_view name) const {
    auto value = percentDecode(needHeader(name));
    if (!value) throw HttpError(400, "the header \"" + std::string(name) + "\" is malformed");
    return std::move(*value);
}

const std::string& Request::needQuery(std::string_view name) const {
    const std::string* value = query.find(name);
    if (!value) throw HttpError(400, "the query field \"" + std::string(name) + "\" is missing");
    return *value;
}

std::int64_t needInteger(const std::string& text, std::string_view name, std::int64_t smallest) {
    const auto value = parseInteger(text);
    if (!value || *value < smallest)
        throw HttpError(400, "\"" + std::string(name) + "\" is not a valid number");
    return *value;
}

Reply Reply::text(unsigned status, std::string body) {
    Reply reply;
    reply.status = status;
    reply.contentType = "text/plain; charset=utf-8";
    reply.body = std::move(body);
    return reply;
}

Reply Reply::json(std::string body) {
    Reply reply;
    reply.contentType = "application/json; charset=utf-8";
    reply.body = std::move(body);
    return reply;
}

}  // namespace tarnwell::service
