#include <gtest/gtest.h>

#include "service/ServiceWorld.h"
#include "service/ShareTree.h"

namespace tarnwell::service::testing {
namespace {

using ReadTest = ServiceWorld;

TEST_F(ReadTest, rangesAreCutAtTheEndAndRefusedBeyondIt) {
    const auto file = addFile(docs_, "digits", "0123456789");
    const auto empty = addFile(docs_, "empty", "");
    serve();
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    const auto name = file->UploadName.str();
    struct {
        std::string name;
        const char* position;
        const char* count;
        long status;
        const char* bytes;
    } const cases[] = {
        {name, "0", "1", 200, "0"},
        {name, "3", "4", 200, "3456"},
        {name, "9", "9223372036854775807", 200, "9"},
        {name, "3", "0", 200, ""},
        {name, "10", "1", 200, ""},
        {name, "11", "1", 416, nullptr},
        {empty->UploadName.str(), "0", "1", 200, ""},
        {name, "-1", "1", 400, nullptr},
        {name, "9223372036854775808", "1", 400, nullptr},
        {name, "", "1", 400, nullptr},
        {"Unknown", "0", "1", 404, nullptr},
        {"../" + name, "0", "1", 404, nullptr},
    };
    for (const auto& one : cases) {
        SCOPED_TRACE(one.name + " " + one.position + " " + one.count);
        // An empty value removes a header in libcurl, which is the missing header's case.
        const auto read = readReply("alpha.localhost", token, one.name, one.position, one.count);
        const auto viaApi = client_->post("filecache01.alpha.localhost", "/clientfileapi.ashx",
                                          {"shareToken: " + token, "userOrigin: anna@alpha.test",
                                           "Content-Type: application/x-www-form-urlencoded"},
                                          "action=read&file=" + one.name + "&shareId=" + docs_.id +
                                              "&position=" + one.position + "&count=" + one.count);
        for (const auto* reply : {&read, &viaApi}) {
            EXPECT_EQ(reply->status, one.status) << reply->body << reply->error;
            EXPECT_TRUE(!one.bytes || reply->body == one.bytes) << reply->body;
        }
    }
}

TEST_F(ReadTest, contentsAreOpenOnlyToTokensOfTheirShareInItsDomain) {
    metadata().grant(docs_.id, ben_.id, true);
    const auto mine = addFile(docs_, "mine", "mine");
    const auto other = addFile(plans_, "other", "other");
    serve();
    const auto anna = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    const auto ben = shareTokens("beta.localhost", "ben@beta.test", "ben's").at("Plans");
    const auto read = [&](const std::string& domain, const std::string& token, const TWVirtualFilePtr& file) {
        return readReply(domain, token, file->UploadName.str(), "0", "100").status;
    };
    EXPECT_EQ(read("alpha.localhost", anna, mine), 200);
    EXPECT_EQ(read("beta.localhost", ben, other), 200);
    EXPECT_EQ(read("alpha.localhost", anna, other), 404);
    EXPECT_EQ(read("beta.localhost", ben, mine), 404)
        << "also when the user has a right in that share as well";
    EXPECT_EQ(read("beta.localhost", anna, mine), 403);
    EXPECT_EQ(read("alpha.localhost", anna + "0", mine), 403);
    EXPECT_EQ(read("alpha.localhost", "%zz", mine), 400);
    EXPECT_EQ(catchUpReply("alpha.localhost", docs_.id, ben, "-1").status, 403);
    metadata().revoke(docs_.id, anna_.id);
    EXPECT_EQ(read("alpha.localhost", anna, mine), 403);
}

TEST_F(ReadTest, replacedContentsStayReadableForAWhile) {
    const auto file = addFile(docs_, "old", "old");
    change(docs_, [&](ShareChange& change) { removeItem(change, *itemAtPath(change, "old")); });
    serve();
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    data_->dropOldContents(std::chrono::hours(1));
    EXPECT_EQ(readReply("alpha.localhost", token, file->UploadName.str(), "0", "9").body, "old");
    data_->dropOldContents(std::chrono::hours(-1));
    EXPECT_EQ(readReply("alpha.localhost", token, file->UploadName.str(), "0", "9").status, 404);
    EXPECT_FALSE(data_->contents().open(file->UploadName.view()));
}

TEST_F(ReadTest, missingBytesAreAnErrorNotAnEmptyFile) {
    const auto file = addFile(docs_, "lost", "lost");
    data_->contents().remove(file->UploadName.view());
    serve();
    const auto token = shareTokens("alpha.localhost", "anna@alpha.test", "anna's").at("Docs");
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(readReply("alpha.localhost", token, file->UploadName.str(), "0", "9").status, 500);
    EXPECT_NE(::testing::internal::GetCapturedStderr().find("are missing"), std::string::npos);
}

}  // namespace
}  // namespace tarnwell::service::testing
