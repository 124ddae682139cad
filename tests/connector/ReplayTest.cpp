#include <gmock/gmock.h>

#include "connector/JournalFixture.h"
#include "connector/Transmissions.h"

namespace tarnwell::testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class ReplayTest : public JournalFixture {
  protected:
    /// A file that the service has.
    TWVirtualFilePtr known(const std::string& name) {
        auto file = std::make_shared<TWVirtualFile>();
        file->ShareId = file->ParrentId = "s1";
        file->InternalName = file->PublicName = name;
        file->UploadName = file->UploadUrl = "U" + name;
        file->IsFile = true;
        file->AllocationSize = file->EndOfFile = 1;
        world.store.addFileMetadata(file);
        return file;
    }
};

TEST_F(ReplayTest, endsEachOperationAsItsAnswerSays) {
    enum { kDone, kDropped, kLater };
    const UrlReply none{0, "refused", {}};
    const struct {
        std::string operation;
        UrlReply reply;
        int ending;
        std::string line;
    } cases[] = {
        {"create", code(1), kDone, "new api: creating folder x"},
        {"create", none, kLater, "Warning! Failing folder creation: cannot receive"},
        {"create", code(3, "x (2)"), kDone, "Duplicate detected during folder creation - renaming our"},
        {"create", code(10), kLater, "Warning! Failed to create folder x : responce code 10."},
        {"rename", none, kLater, "Warning! Failing item renaming: cannot receive"},
        {"rename", code(3, "y (2)"), kDone, "Duplicate detected during item rename - renaming our item"},
        {"rename", code(2), kDone, "Conflict detected during item y rename."},
        {"rename", code(10), kDone, "Problem during item y rename : entity not found. Skipping it."},
        {"rename", code(9), kLater, "Warning! Failed to rename item y : responce code 9."},
        {"delete", code(1), kDone, "new api: deleting item x"},
        {"delete", none, kLater, "Warning! Failing item deletion: cannot receive"},
        {"delete", code(9), kDropped, "Warning! Failed to delete item x : delete ignored."},
        {"delete", code(10), kDropped, "Warning! Failed to delete item x : entity not found."},
        {"delete", code(3), kLater, "Warning! Failed to delete item x : responce code 3."},
    };
    for (const auto& [operation, reply, ending, line] : cases) {
        SCOPED_TRACE(line);
        fault = [&, reply = reply](const std::string& text) -> std::optional<UrlReply> {
            if (text.starts_with("catchup")) return std::nullopt;
            return reply;
        };
        auto item = operation == "create" ? createFolder("x") : known("x");
        if (operation == "rename") rename(item, "y");
        if (operation == "delete") world.store.removeFile(item);
        const std::string name = operation == "rename" ? "y" : "x";
        passDelay();
        EXPECT_TRUE(world.log.contains(line)) << world.log.text();
        EXPECT_EQ(share->TransmitCounter, 0);
        auto expected = std::vector<std::string>{operation + " " + name};
        if (ending != kLater) expected.emplace_back("catchup s1");
        EXPECT_EQ(takeRequests(), expected);
        if (ending == kLater) {
            EXPECT_THAT(journal(), ElementsAre(operation + " " + name + "+30"));
            fault = nullptr;
            pass(std::chrono::seconds(31));
            EXPECT_EQ(takeRequests(), (std::vector<std::string>{operation + " " + name, "catchup s1"}));
        } else if (line.starts_with("Duplicate")) {
            EXPECT_EQ(item->PublicName, name + " (2)");
            EXPECT_EQ(world.store.fileWithPath("/Share s1/" + name + " (2)"), item);
        }
        EXPECT_THAT(journal(), IsEmpty());
        world.store.deleteFileMetadata(item);
    }
}

TEST_F(ReplayTest, sendsInOrderOneAtATimeAndCatchesUpOnce) {
    const auto folder = createFolder("d");
    create("a", "aa", folder);
    create("b", "bb", folder);
    rename(known("k"), "m", folder);
    world.settle();
    auto held = world.loader.when(requestTo("POST", "clientfileapi", "PublicName"));
    held.times(1).hold();
    passDelay();
    ASSERT_TRUE(held.waitForHeld(1));
    EXPECT_EQ(held.count(), 1u);
    EXPECT_THAT(takeRequests(), IsEmpty()) << "nothing overtakes";
    EXPECT_EQ(share->TransmitCounter, 1);
    held.answer([](const auto&) { return code(1); }).release();
    world.settle();
    EXPECT_THAT(takeRequests(),
                ElementsAre("create a", "chunk 0+2", "create b", "chunk 0+2", "rename m", "catchup s1"));
    EXPECT_THAT(journal(), IsEmpty());
}

TEST_F(ReplayTest, aCatchUpComesAgainWhenAnOlderOneWasOnItsWay) {
    auto held = world.loader.when(urlContains("CatchUp7"));
    held.reply(200, R"({"TwVirtualFiles":[],"ShareTick":5,"LargestTick":5})").times(1).hold();
    world.catchUps.catchUp(share);
    createFolder("d");
    passDelay();
    EXPECT_THAT(takeRequests(), ElementsAre("create d"));
    held.release();
    world.settle();
    EXPECT_THAT(takeRequests(), ElementsAre("catchup s1"));
}

TEST_F(ReplayTest, sharesGoSideBySideWithinTheGatewaysLimit) {
    for (int i = 2; i <= 7; ++i)
        world.addShare("s" + std::to_string(i), 5, i == 7 ? "d1" : "d0");
    for (int i = 1; i <= 7; ++i)
        create("f", "x", nullptr, "s" + std::to_string(i));
    world.settle();
    auto held = world.loader.when(requestTo("POST", "clientfileapi", "PublicName"));
    held.answer([](const auto&) { return code(2); }).hold();
    passDelay();
    EXPECT_EQ(held.held(), Transmissions::kMostAtOneGateway + 1);
    held.release();
    world.settle();
    EXPECT_EQ(held.count(), 7u);
}

TEST_F(ReplayTest, aCopyInTheMakingHoldsUpItsShareOnly) {
    world.addShare("s2");
    {
        const auto lock = world.store.beginWriteJournal();
        create("a", "aa");
        firstEntry()->JournalCreate = world.clock.now();
        createFolder("x");
    }
    world.settle();
    firstEntry()->CopyingFile = true;
    create("b", "bb", nullptr, "s2");
    world.settle();
    passDelay();
    EXPECT_THAT(takeRequests(), ElementsAre("create b", "chunk 0+2", "catchup s2"));
    firstEntry()->CopyingFile.reset();
    pass(std::chrono::milliseconds(600));
    EXPECT_THAT(takeRequests(), ElementsAre("create a", "chunk 0+2", "create x", "catchup s1"));
}

TEST_F(ReplayTest, whatAnEntryBuildsOnGoesFirst) {
    // The Creates of a folder and of one in it stand at the end, as after a retransmission.
    const auto outer = createFolder("outer");
    const auto inner = createFolder("inner", outer);
    rename(known("k"), "k", inner);
    createFolder("later");
    {
        const auto lock = world.store.beginWriteJournal();
        auto& journal = world.store.journal();
        for (const auto& folder : {inner, outer}) {
            const auto entry = journal.pendingCreate(folder->InternalName.view());
            journal.deleteJournalEntry(entry);
            entry->queue = {};
            entry->queue.queued = false;
            entry->queue.order = 0;
            journal.addChangeToJournal(entry);
        }
    }
    ASSERT_THAT(journal(), ElementsAre("rename k+5", "create later+5", "create inner+5", "create outer+5"));
    passDelay();
    EXPECT_THAT(takeRequests(),
                ElementsAre("create outer", "create inner", "rename k", "create later", "catchup s1"));
}

TEST_F(ReplayTest, aRetransmittedUpdateJoinsANewerOne) {
    const auto file = create("f", "one");
    auto held = world.loader.when(requestTo("POST", "clientfileapi", "one"));
    held.times(1).fail("reset").hold();
    passDelay();
    write(file, "second");
    world.settle();
    held.release();
    world.settle();
    EXPECT_THAT(journal(), ElementsAre("create f+30"));
    EXPECT_EQ(uploadCopies().size(), 1u);
    takeRequests();
    pass(std::chrono::seconds(31));
    EXPECT_THAT(takeRequests(), ElementsAre("create f", "chunk 0+6", "catchup s1"));
    EXPECT_EQ(sent["T"], "second");
}

TEST_F(ReplayTest, aClockThatWasSetBackHoldsNothingUp) {
    createFolder("d");
    firstEntry()->JournalCreate = world.clock.now() + std::chrono::hours(5);
    passDelay();
    EXPECT_EQ(takeRequests().front(), "create d");
}

TEST_F(ReplayTest, aServiceThatWasRestoredIsAskedFromTheBeginning) {
    const auto file = known("k");
    file->Tick = 5;
    fault = [](const std::string& text) -> std::optional<UrlReply> {
        if (!text.starts_with("catchup")) return std::nullopt;
        return UrlReply{200, {}, R"({"TwVirtualFiles":[],"ShareTick":3,"LargestTick":3})"};
    };
    world.catchUps.catchUp(share);
    world.settle();
    EXPECT_THAT(takeRequests(), ElementsAre("catchup s1", "catchup s1")) << "once more, from the beginning";
    EXPECT_EQ(share->LastApplyedJournalTick, -1);
    EXPECT_EQ(file->Tick, -1) << "an older tick replaces it";
}

TEST_F(ReplayTest, aLongJournalCostsAPassNothing) {
    for (int i = 0; i < 20000; ++i) {
        auto entry = std::make_shared<LocalJournal>();
        entry->LocalJournalType = kJournalCreate;
        entry->JournalCreate = world.clock.now() + std::chrono::minutes(i == 0 ? 2 : 0);
        entry->File = std::make_shared<TWVirtualFile>();
        entry->File->ShareId = entry->File->ParrentId = "s1";
        entry->File->InternalName = entry->File->PublicName = entry->CurrentPath = "f" + std::to_string(i);
        world.store.journal().addChangeToJournal(entry);
    }
    EXPECT_EQ(world.connector.status().uploadQueueLen(), 20000);
    const auto begin = std::chrono::steady_clock::now();
    for (int i = 0; i < 1000; ++i)
        world.replay.checkJournal();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(2));
    EXPECT_THAT(takeRequests(), IsEmpty());
}

}  // namespace
}  // namespace tarnwell::testing
