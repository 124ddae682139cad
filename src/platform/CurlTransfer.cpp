#include "platform/CurlTransfer.h"

#include <strings.h>

#include <algorithm>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string_view>
#include <utility>

#include "platform/GuardedTask.h"
#include "platform/PrivateFile.h"
#include "util/TWLogger.h"

namespace tarnwell {

namespace {

// A length that the server claims is trusted this far before its bytes arrive.
constexpr std::uint64_t kLargestReserve = 16u << 20;
constexpr std::size_t kLargestAuthorityFile = 16u << 20;
constexpr long kReceiveBuffer = 512 * 1024;

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && ::strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

bool isTokenCharacter(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           (c != '\0' && std::strchr("!#$%&'*+-.^_`|~", c) != nullptr);
}

/// Callers insert names into URLs as they stand; what may not stand in a URL is escaped here.
std::string escapedUrl(const std::string& url) {
    static constexpr char kDigits[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(url.size());
    for (const char c : url) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7f && !std::strchr("\"<>\\^`{|}", c))
            out += c;
        else
            (((out += '%') += kDigits[byte >> 4]) += kDigits[byte & 15]);
    }
    return out;
}

}  // namespace

CertificateTrust CertificateTrust::systemAnd(const std::string& extraFile) {
    CertificateTrust trust;
    if (extraFile.empty()) return trust;
    const auto extra = readWholeFile(extraFile, kLargestAuthorityFile);
    if (extra.error != 0) {
        TWLog(kLogMain, "Warning! Cannot read certificate authority %@ : %@", extraFile,
              std::strerror(extra.error));
        return trust;
    }
    const auto* version = curl_version_info(CURLVERSION_NOW);
    std::error_code ignored;
    if (version->capath && std::filesystem::is_directory(version->capath, ignored)) {
        trust.folder = version->capath;
        trust.file = extraFile;
    } else {
        if (version->cainfo) trust.authority = readWholeFile(version->cainfo, kLargestAuthorityFile).bytes;
        trust.authority += "\n" + extra.bytes;
    }
    return trust;
}

UrlTarget UrlTarget::of(const std::string& url) {
    if (std::any_of(url.begin(), url.end(), isControl) || !equalsIgnoringCase(url.substr(0, 8), "https://"))
        return {};
    const std::unique_ptr<CURLU, void (*)(CURLU*)> parsed(curl_url(), curl_url_cleanup);
    if (!parsed || curl_url_set(parsed.get(), CURLUPART_URL, escapedUrl(url).c_str(), 0) != CURLUE_OK)
        return {};
    const auto part = [&](CURLUPart which, unsigned flags) {
        char* text = nullptr;
        if (curl_url_get(parsed.get(), which, &text, flags) != CURLUE_OK) return std::string();
        std::string copy(text);
        curl_free(text);
        return copy;
    };
    UrlTarget target;
    target.host = part(CURLUPART_HOST, 0);
    std::transform(target.host.begin(), target.host.end(), target.host.begin(),
                   [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
    if (target.host.size() > 2 && target.host.front() == '[')
        target.host = target.host.substr(1, target.host.size() - 2);
    if (!target.host.empty()) target.key = target.host + ":" + part(CURLUPART_PORT, CURLU_DEFAULT_PORT);
    return target;
}

bool UrlTarget::loopbackName() const {
    std::string_view name = host;
    if (name.ends_with('.')) name.remove_suffix(1);
    return name == "localhost" || name.ends_with(".localhost");
}

CurlTransfer::CurlTransfer(UrlRequest request, std::function<void(UrlReply)> completion)
    : request_(std::move(request)),
      target_(UrlTarget::of(request_.url)),
      completion_(std::move(completion)) {}

CurlTransfer::~CurlTransfer() {
    // Dropped on the way (out of memory): whoever waits hears of it all the same.
    runGuarded("HTTP request", [this] {
        if (completion_) fail("out of memory");
    });
}

bool CurlTransfer::addHeaders(std::string& error) {
    curl_slist* list = nullptr;
    const auto append = [&](const std::string& line) {
        auto* longer = curl_slist_append(list, line.c_str());
        if (!longer) throw std::bad_alloc();
        headers_.release();
        headers_.reset(list = longer);
    };
    bool hasType = false;
    for (const auto& [name, value] : request_.headers) {
        const auto badValue = [](char c) { return isControl(c) && c != '\t'; };
        if (name.empty() || !std::all_of(name.begin(), name.end(), isTokenCharacter) ||
            std::any_of(value.begin(), value.end(), badValue) ||
            equalsIgnoringCase(name, "Transfer-Encoding") || equalsIgnoringCase(name, "Host")) {
            error = "invalid header";
            return false;
        }
        if (equalsIgnoringCase(name, "Content-Length")) continue;  // written from the body itself
        hasType = hasType || equalsIgnoringCase(name, "Content-Type");
        // libcurl's form for a header that is sent with an empty value is "name;".
        append(value.find_first_not_of(" \t") == std::string::npos ? name + ";" : name + ": " + value);
    }
    append("Expect:");  // no extra round trip before a body
    if (!hasType) append("Content-Type:");
    return true;
}

bool CurlTransfer::prepare(const CertificateTrust& trust, const std::string& userAgent, CURLSH* share) {
    if (target_.host.empty()) {
        reply_.error = "invalid URL";
        return false;
    }
    if (!addHeaders(reply_.error)) return false;
    handle_.reset(curl_easy_init());
    if (!handle_) throw std::bad_alloc();
    bool accepted = true;
    const auto set = [&](CURLoption option, auto value) {
        accepted = curl_easy_setopt(handle_.get(), option, value) == CURLE_OK && accepted;
    };
    set(CURLOPT_URL, escapedUrl(request_.url).c_str());
    set(CURLOPT_PROTOCOLS_STR, "https");
    set(CURLOPT_PRIVATE, static_cast<void*>(this));
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_QUICK_EXIT, 1L);  // a transfer that ends during a look-up does not wait for the resolver
    set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_2TLS));
    set(CURLOPT_PIPEWAIT, 1L);
    set(CURLOPT_FOLLOWLOCATION, 0L);
    set(CURLOPT_TCP_KEEPALIVE, 1L);
    set(CURLOPT_BUFFERSIZE, kReceiveBuffer);
    set(CURLOPT_SHARE, share);
    set(CURLOPT_ERRORBUFFER, detail_);
    set(CURLOPT_USERAGENT, userAgent.c_str());
    set(CURLOPT_HTTPHEADER, headers_.get());
    set(CURLOPT_SSL_VERIFYPEER, 1L);
    set(CURLOPT_SSL_VERIFYHOST, 2L);
    set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    if (!trust.file.empty()) set(CURLOPT_CAINFO, trust.file.c_str());
    if (!trust.folder.empty()) set(CURLOPT_CAPATH, trust.folder.c_str());
    if (!trust.authority.empty()) {
        curl_blob blob{const_cast<char*>(trust.authority.data()), trust.authority.size(), CURL_BLOB_NOCOPY};
        set(CURLOPT_CAINFO_BLOB, &blob);
    }
    // The idle time-out is the loader's; libcurl's own limit on connecting must not be shorter.
    set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(request_.idleTimeout.count() + 60'000));
    if (target_.loopbackName()) {
        const auto address = target_.key + ":127.0.0.1,[::1]";
        resolve_.reset(curl_slist_append(nullptr, address.c_str()));
        set(CURLOPT_RESOLVE, resolve_.get());
    }
    if (target_.loopbackName() || target_.host.starts_with("127.") || target_.host == "::1")
        set(CURLOPT_PROXY, "");
    if (request_.acceptCompressed) set(CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
    const bool posts = request_.method == "POST" || !request_.body.empty();
    if (request_.method == "HEAD") set(CURLOPT_NOBODY, 1L);
    if (posts) {
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDS, request_.body.data());
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request_.body.size()));
    }
    if (!std::all_of(request_.method.begin(), request_.method.end(), isTokenCharacter) ||
        request_.method.empty()) {
        accepted = false;
    } else if (request_.method != "HEAD" && request_.method != (posts ? "POST" : "GET")) {
        set(CURLOPT_CUSTOMREQUEST, request_.method.c_str());
    }
    set(CURLOPT_HEADERFUNCTION, &CurlTransfer::onHeader);
    set(CURLOPT_HEADERDATA, static_cast<void*>(this));
    set(CURLOPT_WRITEFUNCTION, &CurlTransfer::onBody);
    set(CURLOPT_WRITEDATA, static_cast<void*>(this));
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_XFERINFOFUNCTION, &CurlTransfer::onProgress);
    set(CURLOPT_XFERINFODATA, static_cast<void*>(this));
    if (!accepted) reply_.error = "invalid request";
    return accepted;
}

void CurlTransfer::readHeadLine(std::string_view line) {
    const auto startsWith = [&](std::string_view prefix) {
        return equalsIgnoringCase(line.substr(0, prefix.size()), prefix);
    };
    if (startsWith("HTTP/")) {
        // An interim reply may have come before.
        headEnded_ = false;
        framed_ = !startsWith("HTTP/1");
    } else if (startsWith("Content-Length:") || startsWith("Transfer-Encoding:")) {
        framed_ = true;
    } else if (line == "\r\n" || line == "\n") {
        headEnded_ = true;
    }
}

/// libcurl takes the end of a connection for the end of a reply that tells no length, even in the middle of
/// its head and without TLS's own closing message: a cut connection would pass for a whole reply.
bool CurlTransfer::arrivedWhole() const {
    const bool bodiless = request_.method == "HEAD" || reply_.status == 204 || reply_.status == 304;
    return headEnded_ && (framed_ || bodiless);
}

std::size_t CurlTransfer::onHeader(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    transfer.touch();
    const std::string_view line(data, size * count);
    transfer.readHeadLine(line);
    if (line == "\r\n" || line == "\n") {
        curl_off_t length = -1;
        curl_easy_getinfo(transfer.handle(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
        if (length > 0 && static_cast<std::uint64_t>(length) > transfer.request_.maximumReplyBytes &&
            transfer.request_.method != "HEAD") {
            transfer.refusal_ = "the reply is too long";
            return 0;
        }
    }
    return size * count;
}

std::size_t CurlTransfer::onBody(char* data, std::size_t size, std::size_t count, void* self) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    transfer.touch();
    auto& body = transfer.reply_.body;
    const std::size_t bytes = size * count;
    if (bytes > transfer.request_.maximumReplyBytes - body.size()) {
        transfer.refusal_ = "the reply is too long";
        return 0;
    }
    try {
        if (body.empty()) {
            curl_off_t length = -1;
            curl_easy_getinfo(transfer.handle(), CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
            if (length > 0) body.reserve(std::min(static_cast<std::uint64_t>(length), kLargestReserve));
        }
        body.append(data, bytes);
    } catch (const std::exception&) {
        transfer.refusal_ = "out of memory";
        return 0;
    }
    return bytes;
}

int CurlTransfer::onProgress(void* self, curl_off_t, curl_off_t, curl_off_t, curl_off_t sent) {
    auto& transfer = *static_cast<CurlTransfer*>(self);
    if (sent != transfer.sent_) {
        transfer.sent_ = sent;
        transfer.touch();
    }
    return 0;
}

void CurlTransfer::finish(CURLcode code) {
    long status = 0;
    curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
    reply_.status = static_cast<int>(status);
    if (code != CURLE_OK) {
        reply_.error = !refusal_.empty() ? refusal_ : detail_[0] ? detail_ : curl_easy_strerror(code);
    } else if (!arrivedWhole()) {
        reply_.error = "the connection was closed before the reply was known to be whole";
    }
    deliver();
}

void CurlTransfer::fail(std::string error) {
    if (handle_) {
        long status = 0;
        curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &status);
        reply_.status = static_cast<int>(status);
    }
    if (!error.empty()) reply_.error = std::move(error);
    deliver();
}

void CurlTransfer::deliver() {
    auto completion = std::exchange(completion_, nullptr);
    if (completion) completion(std::move(reply_));
}

}  // namespace tarnwell
