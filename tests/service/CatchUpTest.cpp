#include <gtest/gtest.h>

#include <map>
#include <random>

#include "service/Names.h"
#include "service/ServiceError.h"
#include "service/ServiceWorld.h"
#include "service/ShareTree.h"
#include "util/RecordMapping.h"

namespace tarnwell::service::testing {
namespace {

TWVirtualFile newItem(const std::string& name, const std::string& parent, bool isFile) {
    TWVirtualFile item;
    item.InternalName = newInternalName();
    item.ParrentId = parent;
    item.PublicName = name;
    item.IsFile = isFile;
    item.AllocationSize = 0;
    return item;
}

class CatchUpTest : public ServiceWorld {
  protected:
    std::string addFolder(const std::string& name, const std::string& parent) {
        TWVirtualFile item = newItem(name, parent, false);
        change(docs_, [&](ShareChange& change) { insertItem(change, item); });
        return item.InternalName.str();
    }
    OSXCatchUpResponse page(std::int32_t from, std::int32_t take) {
        return *metadata().changesSince(docs_.id, from, take, "url");
    }

    /// Catches up into `seen` as clients do: a full page is followed by one from its start plus the page
    /// size. `between` runs after each page, as other users' changes do. The largest tick of the last page.
    std::int32_t catchUp(std::map<std::string, std::int32_t>& seen, std::int32_t from, std::size_t take,
                         const std::function<void()>& between) {
        for (int pages = 0; pages < 10'000; ++pages, from += static_cast<std::int32_t>(take), between()) {
            const auto one = page(from, static_cast<std::int32_t>(take));
            std::int32_t last = from;
            for (const auto& item : one.TwVirtualFiles) {
                EXPECT_GT(item->Tick, last);
                last = seen[item->InternalName.str()] = item->Tick;
            }
            EXPECT_EQ(one.LargestTick, last);
            EXPECT_LE(one.TwVirtualFiles.size(), take);
            if (one.TwVirtualFiles.size() < take) return last;
        }
        ADD_FAILURE() << "paging does not end";
        return from;
    }
};

TEST_F(CatchUpTest, pagingSkipsNothingHoweverSparseTheTicksAre) {
    std::mt19937 random(7);
    for (const std::size_t count : {1, 10, 11, 37}) {
        SCOPED_TRACE(count);
        const auto share = docs_ = metadata().addShare("share of " + std::to_string(count), alpha_.id);
        std::vector<std::string> names;
        std::map<std::string, std::int32_t> truth, seen;
        change(share, [&](ShareChange& change) {
            while (names.size() < count) {
                TWVirtualFile item = newItem("n" + std::to_string(names.size()), share.id, true);
                insertItem(change, item);
                names.push_back(item.InternalName.str());
                truth[names.back()] = item.Tick;
            }
        });
        const auto stamp = [&](int times) {
            change(share, [&](ShareChange& change) {
                for (int i = 0; i < times; ++i) {
                    auto item = change.find(names[random() % names.size()]);
                    truth[item->InternalName.str()] = item->Tick = change.nextTick();
                    change.put(*item);
                }
            });
        };
        catchUp(seen, 0, 10, [] {});
        EXPECT_EQ(seen, truth) << "a full refresh starts at 0: no record may have that tick";
        // What changes between two pages is part of a later page or of the next catch-up.
        stamp(60);
        const auto largest = catchUp(seen, -1, 10, [&] { stamp(3); });
        catchUp(seen, largest, 10, [] {});
        EXPECT_EQ(seen, truth);
    }
}

TEST_F(CatchUpTest, repliesOverHttpAreWholeAndCompressedOnDemand) {
    addFile(docs_, "a.txt", "abc");
    change(docs_, [&](ShareChange& change) {
        for (int i = 0; i < 50; ++i) {
            TWVirtualFile item = newItem("f" + std::to_string(i), docs_.id, false);
            insertItem(change, item);
        }
    });
    serve();
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    for (const bool compressed : {false, true}) {
        client_->setCompressed(compressed);
        const auto http = catchUpReply("alpha.localhost", docs_.id, token, "-1");
        ASSERT_EQ(http.status, 200) << http.body;
        EXPECT_EQ(http.headers.contains("content-encoding"), compressed);
        std::string error;
        const auto page = parseRecord<OSXCatchUpResponse>(http.body, error);
        ASSERT_TRUE(page) << error;
        EXPECT_EQ(page->TwVirtualFiles.size(), 51u);
        EXPECT_EQ(page->LargestTick, 51);
        const auto& first = *page->TwVirtualFiles.front();
        EXPECT_FALSE(first.UploadUrl.empty()) << "a file without one is merged again and again by clients";
        EXPECT_EQ(first.FilehHash, "90-01-50-98-3C-D2-4F-B0-D6-96-3F-7D-28-E1-7F-72");
    }
}

TEST_F(CatchUpTest, removingAFolderTellsOfEverythingInItDeepestFirst) {
    const auto outer = addFolder("outer", docs_.id);
    const auto inner = addFolder("inner", outer);
    TWVirtualFile leaf = newItem("leaf", inner, true);
    change(docs_, [&](ShareChange& change) { insertItem(change, leaf); });
    change(docs_,
           [&](ShareChange& change) { EXPECT_EQ(removeItem(change, *itemAtPath(change, "/outer/")), 3); });
    const auto changes = page(3, 10);
    ASSERT_EQ(changes.TwVirtualFiles.size(), 3u);
    const std::string expected[] = {leaf.InternalName.str(), inner, outer};
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(changes.TwVirtualFiles[i]->InternalName, expected[i]);
        EXPECT_TRUE(changes.TwVirtualFiles[i]->Deleted);
        EXPECT_EQ(changes.TwVirtualFiles[i]->Tick, 4 + i);
    }
    EXPECT_EQ(changes.ShareTick, 6);
}

TEST_F(CatchUpTest, theStoreRefusesClashesAndRollsBack) {
    addFolder("caf\xC3\xA9", docs_.id);
    // The same name in its decomposed form and in another case.
    EXPECT_THROW(addFolder("CAFE\xCC\x81", docs_.id), ServiceError);
    const auto half = [&](ShareChange& change) {
        TWVirtualFile item = newItem("half", docs_.id, true);
        insertItem(change, item);
        throw ServiceError("cut off");
    };
    EXPECT_THROW(change(docs_, half), ServiceError);
    EXPECT_EQ(page(-1, 10).TwVirtualFiles.size(), 1u);
    EXPECT_EQ(page(-1, 10).ShareTick, 1);
    // An identity belongs to one share for good.
    TWVirtualFile stolen = newItem("stolen", plans_.id, true);
    stolen.InternalName = page(-1, 10).TwVirtualFiles[0]->InternalName;
    EXPECT_THROW(change(plans_, [&](ShareChange& change) { insertItem(change, stolen); }), ServiceError);
}

}  // namespace
}  // namespace tarnwell::service::testing
