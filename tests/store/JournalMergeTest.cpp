#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "store/JournalWorld.h"

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::JournalWorld;

/// A world in which the service knows the files a=A and b=B and the folders d (with d/c=C) and e.
class KnownWorld : public JournalWorld {
  public:
    KnownWorld() {
        known("fa", "a", "A");
        known("fb", "b", "B");
        known("fd", "d", nullptr);
        known("fc", "d/c", "C");
        known("fe", "e", nullptr);
    }
};

TEST(JournalMergeTest, burstsBecomeFewOperations) {
    const struct {
        const char* steps;
        const char* entries;
    } cases[] = {
        // One item.
        {"save n X; write n Y", "[Create] new1 n=Y"},
        {"save n X; mv n m", "[Create] new1 m=X"},
        {"save n X; mv n d/m; write d/m Y; mv d/m k; rm k", ""},
        {"write a X; write a Y", "[Update] fa a=Y"},
        {"write a X; rm a", "[Delete] fa a"},
        {"write a X; mv a m", "[Update] fa m=X<a"},
        {"mv a m; write m X", "[Update] fa m=X<a"},
        {"mv a m; mv m d/k", "[Rename] fa d/k<a"},
        {"mv a m; rm m", "[Delete] fa m"},
        {"mkdir n; save n/x X; mkdir n/m; rm n", ""},
        {"rm d", "[Delete] fc d/c; [Delete] fd d"},
        // Names that take no part.
        {"save n.tmp X; write n.tmp Y; rm n.tmp", ""},
        {"save n.tmp X; mv n.tmp n", "[Create] new2 n=X"},
        // Editors.
        {"rm a; save A X", "[Update] fa A=X"},
        {"save t X; rm a; mv t a", "[Update] fa a=X"},
        {"mv a k; save a X; rm k", "[Update] fa a=X"},
        {"mv a k; save a X", "[Update] fa a=X; [Create] new1 k=A"},
        {"save t X; mv a k; mv t a; rm k", "[Update] fa a=X"},
        {"write a Y; mv a k; save a X", "[Update] fa a=X; [Create] new1 k=Y"},
        {"mv a a.tmp; save a X; rm a.tmp", "[Update] fa a=X"},
        // Places that come free later in the journal.
        {"mv a t; mv b a; mv t b", "[Rename] fa t<a; [Rename] fb a<b; [Rename] fa b<t"},
        {"mv d t; mv e d; mv t e", "[Rename] fd t<d; [Rename] fe d<e; [Rename] fd e<t"},
        {"mv a k; mv b m; rm m; mv k b", "[Rename] fa k<a; [Delete] fb m; [Rename] fa b<k"},
        {"mv d/c k; rm d; mv k m; rm m", "[Delete] fc m; [Delete] fd d"},
        {"mv d m; rm m", "[Rename] fd m<d; [Delete] fc m/c; [Delete] fd m"},
        {"mv a k; mv b m; rm m; save m X; mv k b", "[Rename] fa k<a; [Update] fb m=X<b; [Rename] fa b<k"},
        {"rm a; mv b a", "[Delete] fa a; [Rename] fb a<b"},
        {"mv d k; mkdir d; rm k", "[Rename] fd k<d; [Create] new1 d; [Delete] fc k/c; [Delete] fd k"},
        {"mv a k; mkdir n; mv k n/k", "[Rename] fa k<a; [Create] new1 n; [Rename] fa n/k<k"},
        {"rm d; mkdir d", "[Delete] fc d/c; [Delete] fd d; [Create] new1 d"},
    };
    for (const auto& c : cases) {
        KnownWorld world;
        world.run(c.steps);
        EXPECT_EQ(world.shown(), c.entries) << c.steps;
        EXPECT_EQ(world.performAll(), "") << c.steps;
        const std::string steps = c.steps;
        if (steps.find(".tmp") == std::string::npos) {
            EXPECT_EQ(world.tree(), world.remoteTree()) << c.steps;
        }
        EXPECT_TRUE(std::filesystem::is_empty(world.layout.uploadsCachePath())) << c.steps;
    }
}

TEST(JournalMergeTest, contentsThatAreNotHereStayWithTheirItem) {
    KnownWorld world;
    ::unlink(world.layout.cachePathForFile(*world.item("a")).c_str());
    world.run("mv a k; save a X");
    EXPECT_EQ(world.shown(), "[Rename] fa k<a; [Create] new1 a=X");
    world.run("rm k");
    EXPECT_EQ(world.shown(), "[Delete] fa k; [Create] new1 a=X");
    EXPECT_EQ(world.performAll(), "");

    ::unlink(world.layout.cachePathForFile(*world.item("b")).c_str());
    EXPECT_FALSE(world.rename("b", "b.tmp")) << "the only copy would be lost";
}

TEST(JournalMergeTest, whatIsBeingSentIsLeftAlone) {
    KnownWorld world;
    world.run("write a X");
    const auto sent = *world.journal().journalItems().begin();
    world.journal().setTransmitting(sent, true);
    world.run("write a Y; mv a k");
    EXPECT_EQ(world.shown(), "[Update] fa a=X; [Update] fa k=Y<a");
    world.run("rm k; save a Z");
    EXPECT_EQ(world.shown(), "[Update] fa a=X; [Update] fa a=Z") << "the service knows it at its old place";
}

TEST(JournalMergeTest, whatFailedToBeSentGivesWayToNewerChanges) {
    const struct {
        const char* before;
        const char* meanwhile;
        const char* entries;
    } cases[] = {
        {"write a X", "write b Y", "[Update] fb b=Y; [Update] fa a=X"},
        {"write a X", "write a Y", "[Update] fa a=Y"},
        {"write a X", "mv a k", "[Update] fa a=X; [Rename] fa k<a"},
        {"write a X", "mv a k; write k Y", "[Update] fa a=Y; [Rename] fa k<a"},
        {"write a X", "rm a", "[Delete] fa a"},
        {"mv a k; write k X", "mkdir a; rm k", "[Delete] fa k; [Create] new1 a"},
        {"save n X", "write n Y", "[Create] new1 n=Y"},
        {"save n X", "mv n m; mkdir k; mv m k/m",
         "[Create] new1 n=X; [Rename] new1 m<n; [Create] new2 k; [Rename] new1 k/m<m"},
        {"save n X", "rm n", "[Delete] new1 n"},
        {"mkdir n", "save a2 X", "[Create] new2 a2=X; [Create] new1 n"},
        {"mkdir n", "save n/x X", "[Create] new1 n; [Create] new2 n/x=X"},
        {"mkdir n", "mv n m; mkdir n; mv a m/a; rm m",
         "[Create] new1 n; [Rename] new1 m<n; [Create] new2 n; [Delete] fa m/a; [Delete] new1 m"},
        {"mv d/c c; write c X", "rm d", "[Update] fc c=X<d/c; [Delete] fd d"},
    };
    for (const auto& c : cases) {
        KnownWorld world;
        world.run(c.before);
        world.beginSending();
        world.run(c.meanwhile);
        EXPECT_EQ(world.endSending(JournalWorld::Outcome::kFailed), "");
        EXPECT_EQ(world.shown(), c.entries) << c.before << " | " << c.meanwhile;
        EXPECT_EQ(world.performAll(), "") << c.before << " | " << c.meanwhile;
        EXPECT_EQ(world.tree(), world.remoteTree()) << c.before << " | " << c.meanwhile;
    }
}

TEST(JournalMergeTest, anUploadThatHasBegunIsNeitherRenamedNorResumedWithOtherBytes) {
    KnownWorld world;
    world.run("save n X");
    const auto entry = *world.journal().journalItems().begin();
    entry->TransmitToken = "token";
    entry->UploadedSize = 1;
    world.run("mv n m");
    EXPECT_EQ(world.shown(), "[Create] new1 n=X; [Rename] new1 m<n");
    EXPECT_EQ(entry->TransmitToken, "token");
    world.run("rm m");
    EXPECT_EQ(world.shown(), "[Delete] new1 m") << "the service may have it already";

    world.run("write a X");
    const auto update = *++world.journal().journalItems().begin();
    update->TransmitToken = "token";
    update->UploadedSize = 1;
    update->FileHash = "hash";
    world.run("write a Y");
    EXPECT_FALSE(update->TransmitToken || update->UploadedSize || update->FileHash);
}

TEST(JournalMergeTest, entriesComeBackFromTheirTextsAndOthersDoNot) {
    KnownWorld world;
    world.run("mv a k; save n X; write b Y; rm d; mv e d");
    const auto shown = world.shown();
    const auto lock = world.store.beginWriteJournal();
    (*world.journal().journalItems().begin())->Transmitting = true;
    auto texts = world.journal().journalSnapshot()();
    texts.insert(texts.begin(), {{1, "{"}, {2, "[]"}, {3, R"({"LocalJournalType":1,"Transmitting":false})"}});
    world.journal().loadJournals(texts);
    EXPECT_EQ(world.shown(), shown);
    for (const auto& entry : world.journal().journalItems())
        EXPECT_FALSE(entry->Transmitting || entry->CopyingFile);
    EXPECT_EQ(world.performAll(), "");
    EXPECT_EQ(world.tree(), world.remoteTree());
}

TEST(JournalMergeTest, screenshotsAreSentAtOnceWhereTheUserWantsIt) {
    KnownWorld world;
    auto& journal = world.journal();
    const auto due = [&] {
        return *journal.createJournalForFile(world.item("a"), kJournalUpdate)->JournalCreate -
               world.clock.now();
    };
    std::ofstream(world.layout.extendedAttrsPathForFile(*world.item("a")))
        << "<plist version=\"1.0\"><dict><key>com.apple.metadata:kMDItemIsScreenCapture</key>"
           "<data>AA==</data></dict></plist>";
    EXPECT_EQ(due(), 5s);
    journal.setUploadsScreenshots(true);
    EXPECT_EQ(due(), -1s);
    world.background.runAll();
}

TEST(JournalMergeTest, aLongQueueMakesNothingSlower) {
    KnownWorld world;
    const auto lock = world.store.beginWriteStorage();
    const auto add = [&](int first, int count) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = first; i < first + count; ++i) {
            const std::string name = "f" + std::to_string(i);
            world.store.addFileMetadata(world.file(name, "s", name));
            const auto file = world.store.fileWithId(name);
            world.store.changeParentOfFile(file, "s", "r" + name);
            world.store.changeParentOfFile(file, "s", "q" + name);
            if (i % 4 == 0) world.store.removeFile(file);
        }
        return std::chrono::steady_clock::now() - start;
    };
    const auto early = add(0, 2000);
    add(2000, 20000);
    // A scan of the queue would take hundreds of times as long.
    EXPECT_LT(add(22000, 2000), early * 10 + 500ms);
    EXPECT_EQ(world.journal().journalItems().size(), 24000U);
}

TEST(JournalMergeTest, aShareThatGoesTakesItsEntriesAlong) {
    KnownWorld world;
    world.run("write a X; write b Y; mv d k");
    const auto sent = *world.journal().journalItems().begin();
    world.journal().setTransmitting(sent, true);
    world.store.deleteShareData(world.share);
    EXPECT_EQ(world.shown(), "[Update] fa a=X");
}

TEST(JournalMergeTest, aFolderThatGetsAnotherIdKeepsItsTreeAndEntries) {
    KnownWorld world;
    world.run("mkdir n; save n/x X; mv a n/a; mv n/a b2");
    world.store.changeInternalName("renamed", world.item("n"));
    EXPECT_EQ(world.item("n")->InternalName, "renamed");
    EXPECT_EQ(world.item("n/x")->ParrentId, "renamed");
    EXPECT_EQ(world.names("renamed"), "x ");
    EXPECT_EQ(world.performAll(), "");
    EXPECT_EQ(world.tree(), world.remoteTree());
}

TEST(JournalMergeTest, unsentContentsAreNotGivenUp) {
    KnownWorld world;
    world.run("write a X; mv b k");
    EXPECT_TRUE(world.store.hasUnsentContents(*world.item("a")));
    EXPECT_FALSE(world.store.hasUnsentContents(*world.item("k")));
    EXPECT_EQ(world.performAll(), "");
    EXPECT_FALSE(world.store.hasUnsentContents(*world.item("a")));

    world.item("a")->LocallyUpdated = true;
    world.run("save n.tmp X");
    world.item("n.tmp")->LocallyUpdated = true;
    world.journal().checkForFileModifications();
    EXPECT_EQ(world.shown(), "[Update] fa a=X");
    EXPECT_FALSE(*world.item("a")->LocallyUpdated);
    EXPECT_TRUE(*world.item("n.tmp")->LocallyUpdated);
}

TEST(JournalMergeTest, openFilesHearOfTheirNewIdentity) {
    KnownWorld world;
    world.listener.identities.clear();
    world.run("rm a; create a; mv b k; create b; save n.tmp X; mv n.tmp n");
    ASSERT_EQ(world.listener.identities.size(), 3U);
    EXPECT_TRUE(world.listener.identities[0].ends_with(" is fa"));
    EXPECT_TRUE(world.listener.identities[1].starts_with("fb and F"));
    EXPECT_TRUE(world.listener.identities[2].ends_with(" is " + world.item("n")->InternalName.str()));
}

/// Any sequence of changes, merged in any way and sent in any portions, leads the service to the same tree.
TEST(JournalMergeTest, anySequenceArrives) {
    const char* given = std::getenv("TARNWELL_TEST_ROUNDS");
    const int rounds = given ? std::atoi(given) : 12;
    const auto seed = std::random_device{}();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const auto pick = [&](std::size_t count) { return random() % count; };
    for (int round = 0; round < rounds; ++round) {
        KnownWorld world;
        std::string steps;
        const std::vector<std::string> names = {"a", "b", "c", "A", "d"};
        const auto place = [&] {
            std::vector<std::string> folders = {""};
            for (const auto& file : world.store.allFiles()) {
                if (!file->IsFile) folders.push_back(file->FullPath.str().substr(7) + "/");
            }
            std::sort(folders.begin(), folders.end());
            return folders[pick(folders.size())] + names[pick(names.size())];
        };
        for (int step = 0; step < 60; ++step) {
            const std::string path = place();
            const auto there = world.item(path);
            const std::string contents(1 + pick(9), static_cast<char>('A' + pick(26)));
            switch (pick(8)) {
                case 0:
                case 1:
                    if (there && !there->IsFile) break;
                    steps += (there ? "write " : "save ") + path + " " + contents + "; ";
                    there ? world.write(path, contents) : world.save(path, contents);
                    break;
                case 2:
                    if (there) break;
                    steps += "mkdir " + path + "; ";
                    world.mkdir(path);
                    break;
                case 3:
                    if (!there) break;
                    steps += "rm " + path + "; ";
                    world.remove(path);
                    break;
                case 4:
                    if (pick(2) != 0) break;
                    if (world.isSending()) {
                        const auto outcome = static_cast<JournalWorld::Outcome>(pick(3));
                        steps += "sent " + std::to_string(static_cast<int>(outcome)) + "; ";
                        ASSERT_EQ(world.endSending(outcome), "") << steps;
                    } else {
                        steps += "send; ";
                        world.beginSending();
                    }
                    break;
                default: {
                    const std::string to = place();
                    if (!there || !world.rename(path, to)) break;
                    steps += "mv " + path + " " + to + "; ";
                }
            }
            if (pick(2)) world.background.runAll();
        }
        if (world.isSending()) {
            ASSERT_EQ(world.endSending(JournalWorld::Outcome::kFailed), "") << steps;
        }
        const auto entries = world.shown();
        ASSERT_EQ(world.performAll(), "") << steps << "\n" << entries;
        ASSERT_EQ(world.tree(), world.remoteTree()) << steps << "\n" << entries;
        world.background.runAll();
        ASSERT_TRUE(std::filesystem::is_empty(world.layout.uploadsCachePath())) << steps;
    }
}

}  // namespace
}  // namespace tarnwell
