#include <algorithm>

#include "connector/ClientApiRecords.h"
#include "service/DirectLinkCipher.h"
#include "service/Endpoints.h"
#include "service/Secrets.h"
#include "service/ServiceError.h"
#include "service/ShareTree.h"
#include "service/WebPage.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::service {

namespace {

constexpr std::size_t kRowsPerPage = 1000;
/// The prefix makes browsers refuse it from anywhere but this very host, over TLS.
constexpr std::string_view kCookie = "__Host-tarnwell";

/// A part of a share that a browser may see: a folder with all in it, or one file.
struct Scope {
    std::string shareId;
    std::string root;   ///< internal name, or the share's id
    std::string title;  ///< what the root is called
    std::string url;    ///< of the root; further parameters may follow
    bool isLink = false;
};

/// The live items from the root of the scope down to the item, without the root; none when it is not inside.
std::optional<std::vector<TWVirtualFilePtr>> pathTo(ShareView& view, const Scope& scope,
                                                    const std::string& id) {
    if (!canContain(view, scope.root, {})) return std::nullopt;
    std::vector<TWVirtualFilePtr> path;
    for (std::string above = id; above != scope.root;) {
        const auto item = view.find(above);
        if (!item || item->Deleted || path.size() > 4096) return std::nullopt;
        above = item->ParrentId.str();
        path.push_back(item);
    }
    std::reverse(path.begin(), path.end());
    return path;
}

class WebClient {
  public:
    WebClient(MetadataStore& store, ContentStore& contents, WebSessions& sessions)
        : store_(store), contents_(contents), sessions_(sessions) {}

    [[nodiscard]] Reply publicLink(const Request& request) const {
        const std::string* file = request.query.find("saf2");
        const std::string* folder = request.query.find("sao2");
        const std::string* id = file ? file : folder;
        if (!id) throw HttpError(404, "This address is not complete.");
        const auto link = store_.link(digestOf(*id));
        if (!link || link->kind != (file ? kLinkFile : kLinkFolder) || link->domainId != request.domain->id)
            throw HttpError(404, "There is no such link.");
        const bool over =
            link->revoked || (link->expires && *link->expires <= std::chrono::system_clock::now());
        if (over) throw HttpError(410, "This link has ended.");

        Scope scope{link->shareId, link->item, {}, {}, true};
        scope.url = "/publiclink.aspx?" + std::string(file ? "saf2=" : "sao2=") + queryText(*id);
        TWVirtualFilePtr item;
        store_.view(scope.shareId, [&](ShareView& view) {
            if (scope.root == view.share().id) {
                scope.title = view.share().name;
            } else if ((item = view.find(scope.root)) && !item->Deleted) {
                scope.title = item->PublicName.str();
            }
        });
        if (scope.title.empty()) throw HttpError(410, "What this link led to has been deleted.");
        const bool fetches = request.query.find("download") || request.query.find("file");
        if (fetches && link->maxUses) {
            // A download that is resumed is the same use.
            const std::string* range = request.header("Range");
            const bool resumed = range && !range->starts_with("bytes=0-") && link->uses > 0;
            if (!resumed && !store_.useLink(link->digest))
                throw HttpError(410, "This link has been used up.");
        }
        if (folder) return browse(request, scope);
        if (request.query.find("download")) return fetch(request, *item);
        return webPage(200, scope.title,
                       "<h1>" + htmlText(scope.title) + "</h1><p>" + sizeText(item->size()) + ", " +
                           dateText(item->LastWriteTime) + " UTC</p><p><a class=\"get\" href=\"" +
                           htmlText(scope.url + "&download=1") + "\">Download</a></p>");
    }

    [[nodiscard]] Reply home(const Request& request) const {
        if (const std::string* link = request.query.find("sas")) return logIn(request, *link);
        const auto session = sessionOf(request);
        const auto device =
            session ? store_.deviceOfToken(session->email, session->domainId, session->domainToken)
                    : std::nullopt;
        if (!device || session->domainId != request.domain->id) {
            throw HttpError(403, "You are not logged in. Open this page from the menu of Tarnwell.");
        }
        const auto shares = store_.accessOf(*device, request.domain->id);
        const std::string* wanted = request.query.find("share");
        if (!wanted) return shareList(request, shares);
        const auto share = std::find_if(shares.begin(), shares.end(),
                                        [&](const auto& access) { return access.share.id == *wanted; });
        if (share == shares.end()) throw HttpError(404, "There is no such share.");
        return browse(request, {share->share.id, share->share.id, share->share.name,
                                "/default.aspx?share=" + queryText(share->share.id), false});
    }

  private:
    [[nodiscard]] Reply logIn(const Request& request, const std::string& encrypted) const {
        const HttpError refused(403, "This link does not work any more. Open the page from the menu again.");
        std::string error;
        const auto text = decryptDirectLink(encrypted);
        const auto url = text ? parseRecord<DirectLinkUrl>(std::string_view(*text), error) : nullptr;
        if (!url) throw refused;
        const auto link = store_.link(digestOf(url->DirectLinkId));
        if (!link || link->kind != kLinkWebClient || link->domainId != request.domain->id) throw refused;
        const auto device = store_.deviceOfToken(url->UserId, request.domain->id, url->DomainToken);
        if (!device || device->id != link->deviceId || !store_.useLink(link->digest)) throw refused;

        // The address with its secrets does not stay in the browser's history line.
        Reply reply = webPage(303, "Tarnwell", "");
        std::string target = "/default.aspx";
        if (store_.shareWithId(link->parameter))
            target += "?share=" + queryText(link->parameter);
        else if (link->parameter == "*NEWSHARE")
            target += "?new=1";
        const std::string secret = sessions_.begin({url->UserId, request.domain->id, url->DomainToken});
        reply.headers.emplace_back("Location", target);
        reply.headers.emplace_back("Set-Cookie", std::string(kCookie) + "=" + secret +
                                                     "; Path=/; Secure; HttpOnly; SameSite=Strict");
        return reply;
    }

    [[nodiscard]] std::optional<WebSessions::Session> sessionOf(const Request& request) const {
        const std::string* header = request.header("Cookie");
        if (!header) return std::nullopt;
        for (std::string_view rest = *header; !rest.empty();) {
            const auto end = rest.find(';');
            std::string_view pair = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
            while (pair.starts_with(' '))
                pair.remove_prefix(1);
            if (pair.starts_with(kCookie) && pair.substr(kCookie.size()).starts_with('='))
                return sessions_.find(pair.substr(kCookie.size() + 1));
        }
        return std::nullopt;
    }

    static Reply shareList(const Request& request, const std::vector<ShareAccess>& shares) {
        std::string body = "<h1>" + htmlText(request.domain->name) + "</h1>";
        if (request.query.find("new")) {
            body +=
                "<p>New shares are made by whoever runs this service; they appear here and on your devices "
                "by themselves.</p>";
        }
        body += shares.empty() ? "<p>There are no shares for you yet.</p>" : "<table>";
        for (const auto& access : shares) {
            body += "<tr><td><a href=\"/default.aspx?share=" + queryText(access.share.id) + "\">" +
                    htmlText(access.share.name) + "</a></td><td>" +
                    (access.readOnly ? "read only" : "read and write") + "</td></tr>";
        }
        if (!shares.empty()) body += "</table>";
        return webPage(200, request.domain->name, body);
    }

    /// A folder of the scope as a list, or one of its files.
    [[nodiscard]] Reply browse(const Request& request, const Scope& scope) const {
        const std::string* file = request.query.find("file");
        const std::string* folder = request.query.find("folder");
        const std::string& wanted = file ? *file : folder ? *folder : scope.root;
        std::optional<std::vector<TWVirtualFilePtr>> path;
        std::vector<TWVirtualFilePtr> children;
        store_.view(scope.shareId, [&](ShareView& view) {
            path = pathTo(view, scope, wanted);
            if (path && !file) children = view.children(wanted);
        });
        const bool isFile = path && !path->empty() && path->back()->IsFile;
        if (!path || isFile != (file != nullptr)) throw HttpError(404, "There is no such item here.");
        if (isFile) return fetch(request, *path->back());
        std::stable_partition(children.begin(), children.end(),
                              [](const auto& item) { return !item->IsFile; });
        return listing(request, scope, *path, children);
    }

    static Reply listing(const Request& request, const Scope& scope,
                         const std::vector<TWVirtualFilePtr>& path,
                         const std::vector<TWVirtualFilePtr>& children) {
        const auto anchor = [](const std::string& url, std::string_view text) {
            return "<a href=\"" + htmlText(url) + "\">" + htmlText(text) + "</a>";
        };
        const auto itemUrl = [&](const char* key, const TWVirtualFilePtr& item) {
            return scope.url + "&" + key + "=" + queryText(item->InternalName.view());
        };
        std::string body = "<h1>";
        if (!scope.isLink) body += anchor("/default.aspx", request.domain->name) + " / ";
        body += path.empty() ? htmlText(scope.title) : anchor(scope.url, scope.title);
        for (const auto& folder : path) {
            body += " / ";
            body += folder == path.back() ? htmlText(folder->PublicName.view())
                                          : anchor(itemUrl("folder", folder), folder->PublicName.view());
        }
        body += "</h1>";
        const std::string here = path.empty() ? scope.url : itemUrl("folder", path.back());
        const std::string* asked = request.query.find("page");
        const std::size_t pages = (children.size() + kRowsPerPage - 1) / kRowsPerPage;
        const auto page = static_cast<std::size_t>(
            asked ? std::clamp<std::int64_t>(parseInteger(*asked).value_or(1), 1,
                                             std::max<std::int64_t>(static_cast<std::int64_t>(pages), 1))
                  : 1);
        body += children.empty() ? "<p>This folder is empty.</p>" : "<table>";
        for (std::size_t i = (page - 1) * kRowsPerPage; i < std::min(page * kRowsPerPage, children.size());
             ++i) {
            const auto& item = children[i];
            body += "<tr><td>";
            body += item->IsFile ? anchor(itemUrl("file", item), item->PublicName.view())
                                 : anchor(itemUrl("folder", item), item->PublicName.str() + "/");
            body += "</td><td>" + (item->IsFile ? sizeText(item->size()) : std::string()) + "</td><td>" +
                    dateText(item->LastWriteTime) + "</td></tr>";
        }
        if (!children.empty()) body += "</table>";
        if (pages > 1) {
            body += "<p>";
            if (page > 1) body += anchor(here + "&page=" + std::to_string(page - 1), "Previous") + " ";
            body += "Page " + std::to_string(page) + " of " + std::to_string(pages);
            if (page < pages) body += " " + anchor(here + "&page=" + std::to_string(page + 1), "Next");
            body += "</p>";
        }
        return webPage(200, path.empty() ? scope.title : path.back()->PublicName.view(), body);
    }

    [[nodiscard]] Reply fetch(const Request& request, const TWVirtualFile& item) const {
        std::shared_ptr<ContentReader> reader;
        if (item.size() > 0) {
            reader = contents_.open(item.UploadName.view());
            if (!reader) throw ServiceError("the contents " + item.UploadName.str() + " are missing");
        }
        return download(request, item.PublicName.view(), std::move(reader), item.UploadName.view());
    }

    MetadataStore& store_;
    ContentStore& contents_;
    WebSessions& sessions_;
};

/// Refusals as pages.
std::function<Reply(const Request&)> forBrowsers(std::function<Reply(const Request&)> handle) {
    return [handle = std::move(handle)](const Request& request) {
        try {
            return handle(request);
        } catch (const HttpError& error) {
            return webPage(error.status, "Tarnwell", "<h1>" + htmlText(error.what()) + "</h1>");
        }
    };
}

}  // namespace

std::vector<Endpoint> webClientEndpoints(MetadataStore& store, ContentStore& contents,
                                         WebSessions& sessions) {
    const auto client = std::make_shared<const WebClient>(store, contents, sessions);
    return {
        {HostRole::webClient, "/publiclink.aspx", "GET", 16 * 1024,
         forBrowsers([client](const Request& request) { return client->publicLink(request); })},
        {HostRole::webClient, "/default.aspx", "GET", 16 * 1024,
         forBrowsers([client](const Request& request) { return client->home(request); })},
        {HostRole::webClient, "/", "GET", 16 * 1024,
         forBrowsers([client](const Request& request) { return client->home(request); })},
    };
}

}  // namespace tarnwell::service
