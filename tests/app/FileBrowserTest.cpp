// The file browser's commands and overlays over a real store and connector: what the extension, the desktop
// and the service see.

#include <filesystem>
#include <fstream>
#include <sstream>

#include "app/FakeClient.h"
#include "connector/ConnectorSession.h"
#include "connector/LoginRecords.h"
#include "store/ContentVersion.h"
#include "store/LocalChangeJournal.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::FakeClient;
using testing::urlContains;
using Texts = std::vector<std::string>;

const std::map<std::string, std::string> kIsland{{"TWGlobalAddress", "example.localhost:8443"}};

/// "/Papers" with the folder "Plans", "Plans/big.bin" and "note.txt" of ten bytes each, and "empty.txt".
struct FileBrowserTest : ::testing::Test {
    FileBrowserTest() {
        client.ports.extension = ":1.7";
        client.start();
        share = std::make_shared<ManagedShare>();
        share->ShareId = "s";
        share->ShareName = share->DisplayName = "Papers";
        share->DomainId = "dom";
        share->GateWayUrl = "example.localhost:8443";
        share->ShareAcl.emplace().AclToken = "acl";
        client.store.insertShare(share);
        client.store.createFolderForShare(*share);
        plans = add("plans", "s", "Plans", false, 0);
        big = add("big", "plans", "big.bin", true, 10);
        note = add("note", "s", "note.txt", true, 10);
        empty = add("empty", "s", "empty.txt", true, 0);
    }

    TWVirtualFilePtr add(std::string_view id, std::string_view parent, std::string_view name, bool isFile,
                         std::int64_t size) {
        auto item = std::make_shared<TWVirtualFile>();
        item->ShareId = "s";
        item->InternalName = id;
        item->ParrentId = parent;
        item->PublicName = name;
        item->IsFile = isFile;
        item->EndOfFile = item->AllocationSize = size;
        item->UploadName = "u-" + std::string(id);
        item->UploadUrl = "example.localhost:8443";
        client.store.addFileMetadata(item);
        return item;
    }
    [[nodiscard]] std::string at(const std::string& path) const { return client.layout.mountPath() + path; }
    void command(const std::string& name, const std::string& path) {
        client.ports.handler({1, name + ":" + at(path)});
        client.loop.runPending();
    }
    /// What the extension was told since the last time, the mount path left out.
    Texts told() {
        client.loop.advance(1s);
        Texts texts = std::exchange(client.ports.texts, {});
        for (auto& text : texts) {
            if (const auto found = text.find(at("")); found != std::string::npos)
                text.erase(found, at("").size());
        }
        return texts;
    }
    bool waitForDownloads(int count) {
        return client.loop.waitUntil(
            [&] { return downloaded >= count && client.connector.downloads().downloadQueueLen() == 0; });
    }
    [[nodiscard]] Texts lines(std::string_view text) const {
        Texts found;
        std::istringstream log(client.log());
        for (std::string line; std::getline(log, line);) {
            if (const auto at = line.find(text); at != std::string::npos) found.push_back(line.substr(at));
        }
        return found;
    }

    FakeClient client{kIsland};
    testing::ScriptedUrlLoader::Rule reads =
        client.service.when(urlContains("read.aspx")).reply(200, std::string(10, 'x'));
    int downloaded = 0;
    Subscription ends =
        client.notifications.observe<TWConnectorFileDownloadFinished>([this](const auto&) { ++downloaded; });
    ManagedSharePtr share;
    TWVirtualFilePtr plans, big, note, empty;
};

TEST_F(FileBrowserTest, wrongTextsAreLoggedAndDoNothing) {
    const std::string path = at("/Papers/"), broken = "badge:\xff\xfe";
    const std::pair<std::string, std::string> rows[] = {
        {"", "Failed to parse remote command: "},
        {broken, "Failed to parse remote command: badge:"},
        {std::string(1 << 20, 'x'), "Failed to parse remote command: xxx"},
        {"createlink:/etc/passwd", "Cannot obtain file for path /etc/passwd"},
        {"shareashare:" + at("/None"), "Cannot obtain share for path "},
        {"togglesync:" + path + "none", "Cannot obtain file or share for path " + path},
        {"downloadfile:" + path + "Plans", "Wrong parameter for downloadfile"},
    };
    for (const auto& [text, logged] : rows) {
        const auto before = lines("Warning! " + logged).size();
        client.command(text);
        EXPECT_EQ(lines("Warning! " + logged).size(), before + 1) << text.substr(0, 80);
    }
    EXPECT_LT(client.log().size(), 100'000u) << "a text of a megabyte is not a log line of a megabyte";
    EXPECT_EQ(client.connector.downloads().downloadQueueLen(), 0);
    EXPECT_TRUE(client.service.requests(urlContains("")).empty());
    EXPECT_EQ(client.desktop.done, Texts{"post com.tarnwell.ferndisk-started"});
}

TEST_F(FileBrowserTest, nothingIsRememberedForAnExtensionThatIsGone) {
    command("observe", "/Papers");
    command("badge", "/Papers/note.txt");
    auto& icons = client.delegate->fileBrowser().icons();
    EXPECT_EQ(icons.browsedFolders(), std::set<std::string>{at("/Papers")});
    told();
    client.ports.setExtension("");
    EXPECT_TRUE(icons.browsedFolders().empty() && icons.displayBadgePaths().empty());
    command("badge", "/Papers/note.txt");
    EXPECT_TRUE(told().empty() && lines("Failed to send findercommand overlay").empty());
    client.ports.setExtension(":1.9");
    command("hello", "");
    EXPECT_EQ(told(), Texts{"hej:"});
}

TEST_F(FileBrowserTest, overlaysFollowAFileThroughItsLife) {
    told();
    for (const char* path : {"", "/Papers", "/Papers/Plans", "/Papers/note.txt", "/Papers/empty.txt"})
        command("badge", path);
    EXPECT_EQ(told(), (Texts{"overlay(0):", "overlay(0):/Papers", "overlay(0):/Papers/Plans",
                             "overlay(2):/Papers/note.txt", "overlay(1):/Papers/empty.txt"}));

    reads.hold();
    command("downloadfile", "/Papers/note.txt");
    ASSERT_TRUE(reads.waitForHeld(1));
    EXPECT_EQ(told(), (Texts{"overlay(3):/Papers", "overlay(3):/Papers/note.txt"}));
    reads.release();
    ASSERT_TRUE(waitForDownloads(1));
    client.notifications.post(TWConnectorFileDownloadFinished{note, 0, 0, {}});
    EXPECT_EQ(told(), (Texts{"overlay(0):/Papers", "overlay(1):/Papers/note.txt"})) << "once, not per event";

    auto entry = client.store.journal().createJournalForFile(note, kJournalUpdate);
    client.store.journal().addChangeToJournal(entry);
    EXPECT_EQ(told(), (Texts{"overlay(3):/Papers", "overlay(3):/Papers/note.txt"}));
    client.store.journal().deleteJournalEntry(entry);
    EXPECT_EQ(told(), (Texts{"overlay(0):/Papers", "overlay(1):/Papers/note.txt"}));

    command("unobserve", "/Papers");
    EXPECT_EQ(client.delegate->fileBrowser().icons().displayBadgePaths(),
              (std::set<std::string>{at(""), at("/Papers")}));
}

TEST_F(FileBrowserTest, aFolderIsKeptAndLetGo) {
    told();
    add("plans2", "s", "Plans 2", false, 0);
    for (const char* path : {"/Papers", "/Papers/Plans", "/Papers/Plans/big.bin", "/Papers/Plans 2"})
        command("badge", path);
    told();
    reads.hold();
    command("togglesync", "/Papers/Plans");
    EXPECT_EQ(plans->Synchronize, true);
    ASSERT_TRUE(reads.waitForHeld(1));
    EXPECT_EQ(told(),
              (Texts{"overlay(3):/Papers", "overlay(5):/Papers/Plans", "overlay(3):/Papers/Plans/big.bin"}));
    reads.release();
    ASSERT_TRUE(waitForDownloads(1));
    EXPECT_EQ(told(),
              (Texts{"overlay(0):/Papers", "overlay(4):/Papers/Plans", "overlay(1):/Papers/Plans/big.bin"}));
    command("togglesync", "/Papers/Plans");
    EXPECT_EQ(plans->Synchronize, false);
    EXPECT_EQ(told(), Texts{"overlay(0):/Papers/Plans"});
    reads.hold();
    command("togglesync", "/Papers");
    ASSERT_TRUE(reads.waitForHeld(1)) << "what is in the share and not here";
    EXPECT_EQ(told(),
              (Texts{"overlay(5):/Papers", "overlay(4):/Papers/Plans", "overlay(4):/Papers/Plans 2"}));
}

TEST_F(FileBrowserTest, whatChangedElsewhereIsShownAnew) {
    told();
    client.delegate->fileBrowser().driveDidMount();
    EXPECT_EQ(told(), Texts{"hej:"});
    command("badge", "/Papers/Plans/big.bin");
    told();
    std::filesystem::create_directories(at("/Papers/Plans"));  // stands for the mount
    const auto written = std::filesystem::last_write_time(at("/Papers/Plans"));
    std::filesystem::last_write_time(at("/Papers/Plans"), written - 1h);
    const std::filesystem::path cached = client.layout.cachePathForFile(*big);
    std::filesystem::create_directories(cached.parent_path());
    std::ofstream(cached) << "0123456789";
    ASSERT_EQ(ContentVersion::clean(big->UploadName.view()).set(cached), 0);
    client.delegate->fileBrowser().refreshFinderFolders({"plans", "gone", "s"});
    client.loop.runPending();
    EXPECT_GE(std::filesystem::last_write_time(at("/Papers/Plans")), written) << "the marker came";
    EXPECT_TRUE(std::filesystem::is_empty(at("/Papers/Plans"))) << "and went";
    EXPECT_EQ(told(), Texts{"overlay(1):/Papers/Plans/big.bin"});

    client.delegate->fileBrowser().driveWillUnmount();
    std::filesystem::last_write_time(at("/Papers/Plans"), written - 1h);
    client.delegate->fileBrowser().refreshFinderFolders({"plans"});
    client.loop.runPending();
    EXPECT_LT(std::filesystem::last_write_time(at("/Papers/Plans")), written) << "no drive, nothing touched";
}

TEST_F(FileBrowserTest, linksGoToTheClipboardTheMailProgramAndTheBrowser) {
    auto login = std::make_shared<GlobalLoginResponce>();
    login->PrimaryUserDomain.emplace().Domain = {"dom", "example.localhost:8443", {}, {}};
    client.connector.session().setGlobalLoginResponce(login);
    client.service.when(urlContains("ient")).reply(200, R"({"ResponceMessage":"101:Ok","LinkId":"l1"})");
    const std::string link = "https://webclient.example.localhost:8443/publiclink.aspx?saf2=l1";
    auto& done = client.desktop.done;
    done.clear();

    client.command("createlink:" + at("/Papers/note.txt") + "\n");
    EXPECT_EQ(client.clipboard.contents, link);
    EXPECT_EQ(done, Texts{"notify Link was copied to Clipboard / File : note.txt"});
    client.clipboard.works = false;
    command("createlink", "/Papers/note.txt");
    EXPECT_EQ(lines("There is no clipboard for the link of note.txt: " + link).size(), 1u);

    done.clear();
    command("emaillink", "/Papers/note.txt");
    EXPECT_EQ(done,
              Texts{"open mailto:?subject=File%20link&body=https%3A%2F%2Fwebclient.example.localhost%3A8443"
                    "%2Fpubliclink.aspx%3Fsaf2%3Dl1"});
    done.clear();
    command("newshare", "");
    EXPECT_EQ(lines("Opening Web client for function 2 with param *NEWSHARE...").size(), 1u);
    command("shareashare", "/Papers");
    EXPECT_EQ(lines("Opening Web client for function 2 with param s...").size(), 1u);
    ASSERT_EQ(done.size(), 2u);
    EXPECT_TRUE(lines("sas=").empty()) << "as good as a password";
    EXPECT_TRUE(done[0].starts_with("open https://webclient.example.localhost:8443/default.aspx?sas="))
        << done[0];
}

TEST_F(FileBrowserTest, aThousandFoldersAskWhileManyFilesWait) {
    told();
    auto& journal = client.store.journal();
    for (int i = 0; i < 5000; ++i) {
        const std::string name = "f" + std::to_string(i);
        journal.addChangeToJournal(
            journal.createJournalForFile(add(name, "plans", name, true, 0), kJournalCreate));
    }
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i)
        command("badge", "/papers/PLANS");
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 2s) << "each question would walk the queue";
    EXPECT_EQ(told().front(), "overlay(3):/papers/PLANS");
    command("badge", "/Papers/Pl");
    EXPECT_EQ(told().front(), "overlay(3):/Papers/Pl") << "a beginning of a name counts";
    command("badge", "/Papers/Plans 3");
    EXPECT_EQ(told().front(), "overlay(0):/Papers/Plans 3");
}

}  // namespace
}  // namespace tarnwell
