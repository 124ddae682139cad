#include "connector/JournalFixture.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

#include "util/Hash.h"
#include "util/RecordMapping.h"

namespace tarnwell::testing {

namespace {

std::string decoded(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        out += static_cast<char>(std::stoi(std::string(text.substr(i + 1, 2)), nullptr, 16));
        i += 2;
    }
    return out;
}

std::string typeName(std::int32_t type) {
    constexpr const char* kNames[] = {"create", "delete", "rename", "update", "attributes", "catchup"};
    return kNames[type];
}

}  // namespace

JournalFixture::JournalFixture() {
    world.pretendLoggedIn(1);
    share = world.addShare("s1");
    world.loader.when(urlContains("clientfileapi")).answer([this](const UrlRequest& request) {
        return answer(request);
    });
    world.loader.when(urlContains("CatchUp7")).answer([this](const UrlRequest& request) {
        return note("catchup " + header(request, "share").value_or(""), [] {
            return UrlReply{
                .status = 200, .error = {}, .body = R"({"TwVirtualFiles":[],"ShareTick":5,"LargestTick":5})"};
        });
    });
    world.connector.setupRefreshTimers();
    pass(std::chrono::seconds(1));
    takeRequests();
}

TWVirtualFilePtr JournalFixture::create(const std::string& name, std::string_view contents,
                                        const TWVirtualFilePtr& folder, const std::string& shareId) {
    const auto lock = world.store.beginWriteStorage();
    const auto file = world.store.createFile(name, world.store.shareWithId(shareId), folder, false);
    std::ofstream(world.cachePath(file), std::ios::binary) << contents;
    file->AllocationSize = file->EndOfFile = static_cast<std::int64_t>(contents.size());
    return world.store.journal().addChangeToJournal(
        world.store.journal().createJournalForFile(file, kJournalCreate));
}

TWVirtualFilePtr JournalFixture::createFolder(const std::string& name, const TWVirtualFilePtr& folder) {
    const auto lock = world.store.beginWriteStorage();
    const auto created = world.store.createFile(name, share, folder, true);
    return world.store.journal().addChangeToJournal(
        world.store.journal().createJournalForFile(created, kJournalCreate));
}

void JournalFixture::write(const TWVirtualFilePtr& file, std::string_view contents) {
    const auto lock = world.store.beginWriteStorage();
    std::ofstream(world.cachePath(file), std::ios::binary) << contents;
    file->AllocationSize = file->EndOfFile = static_cast<std::int64_t>(contents.size());
    world.store.journal().addChangeToJournal(
        world.store.journal().createJournalForFile(file, kJournalUpdate));
}

void JournalFixture::rename(const TWVirtualFilePtr& file, const std::string& name,
                            const TWVirtualFilePtr& folder) {
    ASSERT_TRUE(world.store.changeParentOfFile(file, folder ? folder->InternalName.view() : "s1", name));
}

void JournalFixture::pass(std::chrono::milliseconds time) {
    constexpr std::chrono::milliseconds kStep{100};
    for (auto done = std::chrono::milliseconds::zero(); done < time; done += kStep) {
        world.loop.advance(kStep);
        world.settle();
    }
}

std::vector<std::string> JournalFixture::journal() const {
    std::vector<std::string> texts;
    const auto lock = world.store.beginReadJournal();
    for (const auto& entry : world.store.journal().journalItems()) {
        std::string text = typeName(entry->LocalJournalType) + " " + entry->File->PublicName.str();
        if (!entry->TransmitToken.empty()) text += "*";
        const auto wait =
            std::chrono::round<std::chrono::seconds>(*entry->JournalCreate - world.clock.now()).count();
        if (wait > 0) text += "+" + std::to_string(wait);
        texts.push_back(text);
    }
    return texts;
}

LocalJournalPtr JournalFixture::firstEntry() const {
    const auto lock = world.store.beginReadJournal();
    return *world.store.journal().journalItems().begin();
}

std::vector<std::string> JournalFixture::uploadCopies() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(world.layout.uploadsCachePath()))
        if (entry.path().extension() != ".inf") names.push_back(entry.path().filename());
    return names;
}

UrlReply JournalFixture::code(int responseCode, const std::string& name) {
    TWFileJournalResponse response;
    response.ResponseCode = responseCode;
    response.TransmitToken = "T";
    if (!name.empty()) {
        response.TwVirtualFile = std::make_shared<TWVirtualFile>();
        response.TwVirtualFile->PublicName = name;
    }
    return {.status = 200, .error = {}, .body = toJsonText(response)};
}

UrlReply JournalFixture::note(const std::string& text, const std::function<UrlReply()>& normally) {
    requests_.push_back(text);
    if (fault) {
        if (auto reply = fault(text)) return *reply;
    }
    return normally();
}

UrlReply JournalFixture::answer(const UrlRequest& request) {
    return header(request, "isRequest") ? answerEvent(request) : answerChunk(request);
}

UrlReply JournalFixture::answerEvent(const UrlRequest& request) {
    std::string error;
    const auto event = parseRecord<TWFileJournalEvent>(decoded(request.body.substr(8)), error);
    EXPECT_TRUE(event) << error;
    EXPECT_EQ(request.idleTimeout, std::chrono::seconds(10));
    lastEvent = *event;
    const auto& file = *event->TwVirtualFile;
    sizes_["T"] = file.size();
    return note(typeName(event->ClientJournalEventType) + " " + file.PublicName.str(), [&] {
        sent["T"].clear();
        return code(1);
    });
}

UrlReply JournalFixture::answerChunk(const UrlRequest& request) {
    const auto token = header(request, "token").value_or("");
    const auto position = header(request, "position").value_or("");
    EXPECT_EQ(header(request, "hash"), hashText(request.body));
    EXPECT_EQ(header(request, "size"), std::to_string(request.body.size()));
    timeouts.push_back(
        std::to_string(std::chrono::duration_cast<std::chrono::seconds>(request.idleTimeout).count()));
    return note("chunk " + position + "+" + std::to_string(request.body.size()), [&] {
        auto& bytes = sent[token];
        if (std::to_string(bytes.size()) != position) return code(1);
        bytes += request.body;
        return code(static_cast<std::int64_t>(bytes.size()) == sizes_[token] ? 2 : 0);
    });
}

}  // namespace tarnwell::testing
