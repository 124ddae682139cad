#include "connector/ClientApi.h"

#include <gmock/gmock.h>

#include "connector/DirectLinkKey.h"
#include "connector/JournalFixture.h"
#include "connector/Links.h"
#include "platform/UrlOpener.h"
#include "util/Format.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ClientApiTest : public JournalFixture {};

TEST_F(ClientApiTest, operationsEndAsTheirAnswersSay) {
    const struct {
        UrlReply reply;
        bool succeeds;
        std::string line;
    } cases[] = {
        {{200, {}, R"({"ResponceMessage":"101:Ok, done","responce":null})"},
         true,
         "CreateFolder request: Warning! Empty InternalName in responce."},
        {{200, {}, R"({"ResponceMessage":"202:No"})"}, false, "Error in CreateFolder request: 202:No"},
        {{200, {}, "[]"}, false, "Warning! Failed to parse CreateFolder responce: "},
        {{500, {}, "x"},
         false,
         "Warning! Error during CreateFolder API request. HTTP status code: 500. Will try later."},
    };
    auto& api = world.connector.clientApi();
    for (const auto& [reply, succeeds, line] : cases) {
        world.loader.when(urlContains("clientapi.aspx")).answer([reply = reply](const auto&) {
            return reply;
        });
        createFolder("d");
        api.createFolder(firstEntry());
        world.settle();
        EXPECT_TRUE(world.log.contains(line)) << world.log.text();
        EXPECT_EQ(journal().empty(), succeeds);
        world.store.journal().clear();
    }
    const auto request = world.loader.requests(urlContains("clientapi.aspx")).front();
    EXPECT_EQ(request.url, "https://clientgateway.d0.test/clientapi.aspx");
    EXPECT_THAT(header(request, "command").value(), ::testing::HasSubstr(R"("Method":"CreateFolder")"));
    EXPECT_THAT(header(request, "request").value(), ::testing::HasSubstr("%22FolderName%22:%22d%22"));
}

TEST_F(ClientApiTest, aNewFolderTakesTheIdOfTheService) {
    const auto folder = createFolder("d");
    const auto inside = create("f", "x", folder);
    CreateFolderResponse response;
    response.ResponceMessage = "101:Ok";
    response.responce = std::make_shared<TWVirtualFile>();
    response.responce->InternalName = "Ftheirs";
    world.loader.when(urlContains("clientapi.aspx")).reply(200, toJsonText(response));
    world.connector.clientApi().createFolder(firstEntry());
    world.settle();
    EXPECT_EQ(inside->ParrentId, "Ftheirs");
    EXPECT_EQ(world.store.fileWithPath("/Share s1/d/f"), inside);
    EXPECT_THAT(journal(), ElementsAre("create f+5", "catchup d"));
}

class LinksTest : public JournalFixture, public UrlOpener {
  protected:
    LinksTest() { links.setUrlOpener(this); }
    bool openUrl(const std::string& url) override {
        opened.push_back(url);
        return true;
    }
    /// The text in a base64 cipher, by the openssl program; none when there is no such program.
    static std::optional<std::string> decrypted(const std::string& base64) {
        std::string key, vector, text;
        const auto hex = [](auto bytes) {
            std::string out;
            for (const unsigned char c : bytes)
                out += format("%02x", c);
            return out;
        };
        const std::string command = "printf %s '" + base64 +
                                    "' | openssl enc -d -a -A -aes-256-cbc -nopad -K " + hex(kDirectLinkKey) +
                                    " -iv " + hex(kDirectLinkVector) + " 2>/dev/null";
        auto* pipe = ::popen(command.c_str(), "r");
        char block[256];
        while (const auto count = ::fread(block, 1, sizeof block, pipe))
            text.append(block, count);
        if (::pclose(pipe) != 0) return std::nullopt;
        return text;
    }
    auto requestRecord() {
        std::string error;
        const auto requests = world.loader.requests(urlContains("lientapi.aspx"));
        const auto others = world.loader.requests(urlContains("ClientApi.aspx"));
        const auto& request = others.empty() ? requests.back() : others.back();
        return parseRecord<CreateDirectLinkRequest>(header(request, "request").value(), error);
    }

    Links& links = world.connector.links();
    std::vector<std::string> opened;
};

TEST_F(LinksTest, encryptsWholeBlocks) {
    for (const std::size_t size : {1, 15, 16, 17, 32}) {
        const std::string text(size, 'x');
        const auto encrypted = Links::encryptDirectLink(text, kDirectLinkKey);
        ASSERT_TRUE(encrypted);
        const std::size_t filled = (size + 15) / 16 * 16;
        EXPECT_EQ(base64Decode(*encrypted)->size(), filled);
        if (const auto plain = decrypted(*encrypted)) {
            EXPECT_EQ(*plain, text + std::string(filled - size, '\0'));
        }
    }
    EXPECT_FALSE(Links::encryptDirectLink("text", std::span(kDirectLinkKey).first(16)));
}

TEST_F(LinksTest, opensTheWebClientLoggedIn) {
    world.loader.when(urlContains("clientapi.aspx"))
        .reply(200, R"({"ResponceMessage":"101:Ok","LinkId":"L1"})");
    const struct {
        std::function<void()> open;
        std::string parameter;
    } cases[] = {{[&] { links.openWebClient(); }, "*LOGIN"},
                 {[&] { links.openShareInWebClient(nullptr); }, "*NEWSHARE"},
                 {[&] { links.openShareInWebClient(share); }, "s1"}};
    for (const auto& [open, parameter] : cases) {
        open();
        world.settle();
        const auto request = requestRecord();
        EXPECT_EQ(request->LinkType, 2);
        EXPECT_EQ(request->MaxUse, 1);
        EXPECT_THAT(request->JsonData, ::testing::HasSubstr(R"("C":")" + parameter + "\""));
    }
    ASSERT_EQ(opened.size(), 3u);
    const std::string begin = "https://webclient.d0.test/default.aspx?sas=";
    ASSERT_TRUE(opened[0].starts_with(begin));
    EXPECT_FALSE(world.log.contains("sas=")) << "as good as a password";
}

TEST_F(LinksTest, makesPublicLinks) {
    std::vector<std::string> made;
    const auto handler = [&](const std::string& link) { made.push_back(link); };
    world.loader.when(urlContains("ClientApi.aspx"))
        .reply(200, R"({"ResponceMessage":"101:Ok","LinkId":"L 1"})");
    links.createFilePublicLink(create("f", "x"), handler);
    world.settle();
    EXPECT_EQ(requestRecord()->LinkType, 3);
    EXPECT_EQ(requestRecord()->MaxUse, 4294967295);
    links.createFilePublicLink(createFolder("d"), handler);
    world.settle();
    EXPECT_EQ(requestRecord()->LinkType, 4);
    EXPECT_THAT(made, ElementsAre("https://webclient.d0.test/publiclink.aspx?saf2=L%201",
                                  "https://webclient.d0.test/publiclink.aspx?sao2=L%201"));

    for (const auto& reply : {UrlReply{0, "reset", {}}, UrlReply{403, {}, "no"}, UrlReply{200, {}, "{}"},
                              UrlReply{200, {}, R"({"ResponceMessage":"300:No"})"}}) {
        world.loader.when(urlContains("ClientApi.aspx")).answer([reply](const auto&) { return reply; });
        links.createFilePublicLink(create("f", "x"), handler);
        world.settle();
    }
    EXPECT_EQ(made.size(), 2u);
    EXPECT_EQ(world.log.count("DirectLink request"), 4u);
}

class SyncStatusTest : public JournalFixture {};

TEST_F(SyncStatusTest, tellsWhatIsStillToDo) {
    auto& status = world.connector.status();
    const auto folder = createFolder("Dir");
    const auto file = create("f", "12345", folder);
    world.settle();
    world.downloads.addFileDownloadTask(world.addFile("G", 7), false);
    EXPECT_TRUE(status.hasUploads());
    EXPECT_EQ(status.uploadQueueLen(), 2);
    EXPECT_EQ(status.uploadQueueBytes(), 5);
    write(file, "1234567");
    world.settle();
    EXPECT_EQ(status.uploadQueueBytes(), 7);
    EXPECT_TRUE(status.pathHasUploads("/share S1/dIr"));
    EXPECT_TRUE(status.pathHasUploads("/Share s1/D")) << "the beginning of a name is enough";
    EXPECT_FALSE(status.pathHasUploads("/Share s1/G"));
    EXPECT_TRUE(status.pathHasDownloads("/Share s1/g"));
    EXPECT_FALSE(status.pathHasDownloads("/Share s1/Dir"));
    passDelay();
    EXPECT_EQ(status.uploadQueueLen(), 0);
    EXPECT_EQ(status.uploadQueueBytes(), 0);
}

TEST_F(SyncStatusTest, theKeepLocalSwitchReachesAllThatIsBelow) {
    struct Icons : ItemIcons {
        bool setIcon(const std::string& path) override {
            drawn.push_back(path);
            return false;
        }
        std::vector<std::string> drawn;
    } icons;
    auto& status = world.connector.status();
    status.setIcons(&icons);
    const auto file = world.addFile("F", 10);
    share->Synchronize = true;
    EXPECT_EQ(status.pathIsSynchronized("/Share s1"), 1);
    EXPECT_EQ(status.pathIsSynchronized("/Share s1/F.bin"), 1);
    EXPECT_EQ(status.pathIsSynchronized("/Share s1/none"), 0);
    status.refreshShareSyncStatus(share);
    world.settle();
    EXPECT_TRUE(world.downloads.isFileInDownloadQueue(*file));
    share->Synchronize = false;
    status.refreshShareSyncStatus(share);
    world.settle();
    EXPECT_FALSE(world.downloads.isFileInDownloadQueue(*file));
    EXPECT_EQ(file->Synchronize, false);
    const auto root = world.layout.mountPath() + "/Share s1";
    EXPECT_THAT(icons.drawn, ElementsAre(root, root + "/F.bin", root, root + "/F.bin"));
    EXPECT_EQ(world.log.count("Warning! Cannot set correct folder icon for "), 4u);
}

}  // namespace
}  // namespace tarnwell::testing
