#include "connector/SharedWorld.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "connector/ConnectorSession.h"
#include "connector/DownloadEngine.h"
#include "connector/LoginRecords.h"
#include "service/Endpoints.h"
#include "service/ServiceError.h"
#include "store/ContentVersion.h"
#include "store/StorePersistence.h"

namespace tarnwell::testing {

namespace {

std::optional<std::string> read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::nullopt;
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

}  // namespace

InProcessService::InProcessService() : data_(folder_.path("data")) {
    auto& store = data_.metadata();
    domain = store.addDomain("Alpha", "alpha.localhost");
    user_ = store.addUser("mia@example.com", domain.id, "hash");
    share_ = store.addShare("Docs", domain.id);
    store.grant(share_.id, user_.id, false);
    auto rows = service::catchUpEndpoints(store);
    for (auto& row : service::contentEndpoints(store, data_.contents(), transfers_))
        rows.push_back(row);
    router_ = std::make_unique<service::Router>(store, log_, std::move(rows));
}

ManagedSharePtr InProcessService::shareOfNewDevice() {
    auto& store = data_.metadata();
    const auto device = store.addDevice(user_.id, "box", "system");
    const auto access = store.accessOf(device, domain.id).at(0);
    auto share = std::make_shared<ManagedShare>();
    share->ShareId = share->VshareId = share_.id;
    share->ShareName = share->DisplayName = share_.name;
    share->DomainId = domain.id;
    share->GateWayUrl = domain.address;
    share->LastApplyedJournalTick = -1;
    share->ShareAcl.emplace();
    share->ShareAcl->AclToken = access.token;
    return share;
}

UrlReply InProcessService::answer(const UrlRequest& request) {
    service::Request asked;
    asked.method = request.method;
    const std::string rest = request.url.substr(8);
    asked.host = rest.substr(0, rest.find('/'));
    asked.target = rest.substr(rest.find('/'));
    asked.body = request.body;
    asked.headers = request.headers;
    const auto step = router_->start(asked);
    const auto reply = step.reply ? *step.reply : router_->finish(*step.endpoint, asked);
    std::string body = reply.body;
    if (reply.range) {
        body.resize(static_cast<std::size_t>(reply.range->count));
        reply.range->reader->read(reply.range->position, body.data(), body.size());
    }
    return {.status = static_cast<int>(reply.status), .error = {}, .body = body};
}

std::string InProcessService::contentsOf(std::string_view uploadName) {
    const auto reader = uploadName.empty() ? nullptr : data_.contents().open(uploadName);
    if (!reader) return "";
    std::string bytes(static_cast<std::size_t>(reader->size()), '\0');
    reader->read(0, bytes.data(), bytes.size());
    return bytes;
}

std::set<std::string> InProcessService::tree() {
    std::set<std::string> lines;
    data_.metadata().view(share_.id, [&](service::ShareView& view) {
        for (const auto& file : view.children(share_.id)) {
            lines.insert(file->PublicName.str() +
                         (file->IsFile ? "=" + contentsOf(file->UploadName.view()) : "/"));
        }
    });
    return lines;
}

UrlReply Wire::sendSynchronously(const UrlRequest& request) {
    return service_.answer(request);
}

void Wire::sendAsynchronously(UrlRequest request, Executor& queue, Completion completion) {
    calls_.push_back({std::move(request), &queue, std::move(completion), {}});
}

void Wire::stop() {
    while (!calls_.empty())
        finish(0, true);
}

void Wire::deliver(std::size_t call) {
    if (!calls_.at(call).reply) calls_[call].reply = service_.answer(calls_[call].request);
}

void Wire::finish(std::size_t call, bool lost) {
    Call done = std::move(calls_.at(call));
    calls_.erase(calls_.begin() + static_cast<std::ptrdiff_t>(call));
    UrlReply reply = lost || !done.reply ? UrlReply{.status = 0, .error = "cut", .body = {}} : *done.reply;
    done.queue->async(
        [completion = std::move(done.completion), reply = std::move(reply)] { completion(reply); });
}

SharedClient::SharedClient(InProcessService& service, std::string root, const ManagedSharePtr& share,
                           FakeClock& clock, bool isFirst)
    : wire(service),
      layout({.home = root + "/home",
              .dataHome = root + "/data",
              .cacheHome = root + "/cache",
              .appTitle = "Tarnwell",
              .oldAppTitle = ""}),
      service_(service),
      shareId_(*share->ShareId) {
    layout.initCachePathes();
    store = std::make_unique<TWMetadataStorage>(
        TWMetadataStorage::Environment{.layout = layout,
                                       .clock = clock,
                                       .background = background,
                                       .userName = [] { return std::string("mia@example.com"); },
                                       .saveDelayed = [] {}});
    connector = std::make_unique<TWConnector>(ConnectorEnvironment{.urlLoader = wire,
                                                                   .reachability = reachability_,
                                                                   .mainLoop = loop,
                                                                   .background = background,
                                                                   .loginQueue = loginQueue,
                                                                   .catchUpQueue = catchUpQueue,
                                                                   .keychain = keychain_,
                                                                   .userDefaults = defaults_,
                                                                   .notifications = notifications_,
                                                                   .clock = clock,
                                                                   .store = *store,
                                                                   .identity = {}});
    store->setDownloadScheduler(&connector->downloads());
    auto login = std::make_shared<GlobalLoginResponce>();
    login->PrimaryUserDomain.emplace();
    login->PrimaryUserDomain->Domain.emplace();
    login->PrimaryUserDomain->Domain->DomainId = service.domain.id;
    login->PrimaryUserDomain->Domain->Url = service.domain.address;
    connector->session().setUsername("mia@example.com");
    connector->session().setGlobalLoginResponce(login);
    if (isFirst) {
        store->insertShare(share);
        store->createFolderForShare(*share);
        store->setStorageEmpty(false);
        (void)store->persistence().save();
    } else {
        store->persistence().load();
        for (const auto& file : files()) {
            if (store->journal().hasPendingContents(file->InternalName.view())) stamp(*file);
        }
    }
}

SharedClient::~SharedClient() {
    connector->stop(std::chrono::seconds(5));
    connector.reset();
    // What runs in the background after a kill never happened.
    background.clear();
}

std::vector<TWVirtualFilePtr> SharedClient::files() const {
    auto files = store->allFiles();
    std::erase_if(files, [](const auto& file) { return !file->IsFile; });
    std::sort(files.begin(), files.end(),
              [](const auto& a, const auto& b) { return a->FullPath.view() < b->FullPath.view(); });
    return files;
}

TWVirtualFilePtr SharedClient::item(const std::string& name) const {
    return store->fileWithPath("/Docs/" + name);
}

std::optional<std::string> SharedClient::see(const TWVirtualFilePtr& file) {
    const auto lock = store->beginWriteStorage();
    if (file->size() == 0) return "";
    const std::string path = layout.cachePathForFile(*file);
    if (store->holdsContents(*file)) return read(path);
    std::string bytes = service_.contentsOf(file->UploadName.view());
    if (static_cast<std::int64_t>(bytes.size()) != file->size()) return std::nullopt;
    std::ofstream(path, std::ios::binary) << bytes;
    (void)ContentVersion::clean(file->UploadName.view()).set(path);
    file->DownloadDate = store->clock().now();
    store->markChanged(*file);
    return bytes;
}

TWVirtualFilePtr SharedClient::create(const std::string& name) {
    const auto change = store->beginLocalChange();
    const auto file = store->createFile(name, store->shareWithId(shareId_), nullptr, false);
    auto& journal = store->journal();
    return journal.addChangeToJournal(journal.createJournalForFile(file, kJournalCreate));
}

void SharedClient::beginEdit(const TWVirtualFilePtr& file, const std::string& bytes) {
    const std::string path = layout.cachePathForFile(*file);
    const auto change = store->beginLocalChange();
    file->LocallyUpdated = true;
    store->markChanged(*file);
    std::ofstream(path, std::ios::binary) << bytes;
    (void)ContentVersion::edited(file->UploadName.view()).set(path);
    file->AllocationSize = file->EndOfFile = static_cast<std::int64_t>(bytes.size());
}

void SharedClient::endEdits() {
    for (const auto& file : files()) {
        if (file->LocallyUpdated.value_or(false)) endEdit(file);
    }
}

void SharedClient::endEdit(const TWVirtualFilePtr& file) {
    const auto change = store->beginLocalChange();
    file->LocallyUpdated = false;
    auto& journal = store->journal();
    if (const auto now = journal.addChangeToJournal(journal.createJournalForFile(file, kJournalUpdate)))
        stamp(*now);
}

/// The cached bytes are the record's.
void SharedClient::stamp(const TWVirtualFile& file) {
    (void)ContentVersion::clean(file.UploadName.view()).set(layout.cachePathForFile(file));
}

bool SharedClient::rename(const TWVirtualFilePtr& file, const std::string& to) {
    const auto change = store->beginLocalChange();
    if (const auto there = item(to); there && there != file) store->removeFile(there);
    return store->changeParentOfFile(file, shareId_, to);
}

void SharedClient::settle() {
    while (background.runAll() + loginQueue.runAll() + catchUpQueue.runAll() + loop.runPending() > 0) {
    }
}

void SharedClient::pass(std::chrono::milliseconds time) {
    loop.advance(time);
}

std::set<std::string> SharedClient::tree() {
    std::set<std::string> lines;
    for (const auto& file : files())
        lines.insert(file->PublicName.str() + "=" + see(file).value_or("(unreadable)"));
    return lines;
}

std::string SharedClient::journalText() const {
    std::string text;
    const auto lock = store->beginReadJournal();
    for (const auto& entry : store->journal().journalItems())
        text +=
            std::string(journalEventName(entry->LocalJournalType)) + " " + entry->CurrentPath.str() + "; ";
    return text;
}

}  // namespace tarnwell::testing
