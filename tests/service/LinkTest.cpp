#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <sstream>

#include "connector/ClientApiRecords.h"
#include "service/ChangeWorld.h"
#include "service/Commands.h"
#include "service/DirectLinkCipher.h"
#include "service/WebPage.h"
#include "store/Enums.h"
#include "util/RecordMapping.h"
#include "util/TWUtils.h"

namespace tarnwell::service::testing {
namespace {

const char* const kWeb = "webclient.alpha.localhost";

class LinkTest : public ChangeWorld {
  protected:
    /// The id of a new link, or the whole answer.
    std::string link(const std::string& token, std::int32_t type, const std::string& data,
                     std::int64_t uses = kLinkUnlimited, std::int64_t minutes = kLinkUnlimited) {
        const CreateDirectLinkRequest request{type, minutes, uses, data};
        const auto http = clientApi(token, "CreateDirectLink", toJsonText(request), "/ClientApi.aspx");
        std::string error;
        const auto reply = parseRecord<CreateDirectLinkResponce>(std::string_view(http.body), error);
        if (!reply || !reply->LinkId) return std::to_string(http.status) + " " + http.body;
        EXPECT_TRUE(reply->ResponceMessage.starts_with("101:Ok"));
        return *reply->LinkId;
    }
    std::string itemLink(const TWVirtualFile& item, std::int64_t uses = kLinkUnlimited) {
        ShareFileToken2 target;
        target.A = item.InternalName.str();
        target.B = docs_.id;
        target.D = one_.token;
        target.E = "anna@alpha.test";
        return link(one_.token, item.IsFile ? kLinkFile : kLinkFolder, toJsonText(target), uses);
    }
    HttpsReply web(const std::string& target, const HttpsClient::Headers& headers = {}) {
        return client_->get(kWeb, target, headers);
    }
    /// Every page and every refusal is one.
    static void expectSafe(const HttpsReply& page) {
        EXPECT_EQ(page.headers.at("content-type"), "text/html; charset=utf-8");
        EXPECT_EQ(page.headers.at("x-content-type-options"), "nosniff");
        EXPECT_EQ(page.headers.at("referrer-policy"), "no-referrer");
        EXPECT_NE(page.headers.at("content-security-policy").find("default-src 'none'"), std::string::npos);
        for (const char* bad : {"<script", "<b>", "<img", "http://", "https://", "javascript:"})
            EXPECT_EQ(page.body.find(bad), std::string::npos) << bad << " in " << page.body;
    }
};

TEST_F(LinkTest, aFileIsShownAndDownloadedInAnyRangeUnderItsName) {
    const std::string bytes = "0123456789";
    const auto file = one_.file("<b>\"caf\xC3\xA9\" & 50%.PDF", bytes);
    ASSERT_EQ(send(one_, kJournalCreate, file, bytes), "1:2");
    const auto id = itemLink(file);
    const std::string address = "/publiclink.aspx?saf2=" + id;
    const auto page = web(address);
    EXPECT_EQ(page.status, 200);
    expectSafe(page);
    EXPECT_NE(page.body.find("&lt;b&gt;&quot;caf\xC3\xA9&quot; &amp; 50%.PDF"), std::string::npos)
        << page.body;
    EXPECT_NE(page.body.find(address + "&amp;download=1"), std::string::npos) << page.body;
    for (const auto& secret : {one_.token, file.UploadName.str(), docs_.id})
        EXPECT_EQ(page.body.find(secret), std::string::npos);

    const auto whole = web(address + "&download=1");
    EXPECT_EQ(whole.body, bytes);
    EXPECT_EQ(whole.headers.at("content-type"), "application/pdf");
    EXPECT_EQ(whole.headers.at("content-disposition"),
              "attachment; filename=\"<b>_caf__ & 50_.PDF\"; "
              "filename*=UTF-8''%3Cb%3E%22caf%C3%A9%22%20%26%2050%25.PDF");
    const std::string tag = whole.headers.at("etag");
    struct {
        const char* range;
        long status;
        const char* bytes;
        const char* told;
    } const cases[] = {
        {"bytes=0-3", 206, "0123", "bytes 0-3/10"}, {"bytes=8-", 206, "89", "bytes 8-9/10"},
        {"bytes=-3", 206, "789", "bytes 7-9/10"},   {"bytes=10-", 416, "", "bytes */10"},
        {"bytes=-0", 416, "", "bytes */10"},        {"bytes=99999999999999999999-", 200, "0123456789", ""},
    };
    for (const auto& one : cases) {
        const auto part = web(address + "&download=1", {std::string("Range: ") + one.range});
        EXPECT_EQ(part.status, one.status) << one.range;
        EXPECT_EQ(part.body, one.bytes) << one.range;
        const auto told = part.headers.find("content-range");
        EXPECT_EQ(told == part.headers.end() ? "" : told->second, one.told) << one.range;
    }
    EXPECT_EQ(web(address + "&download=1", {"Range: bytes=8-", "If-Range: " + tag}).body, "89");
    EXPECT_EQ(web(address + "&download=1", {"Range: bytes=8-", "If-Range: \"older\""}).body, bytes);
}

TEST_F(LinkTest, aFolderLinkShowsWhatIsInItAndNothingElse) {
    const auto folder = one_.folder("covered");
    const auto inner = one_.folder("<img src=x>", folder.InternalName.str());
    const auto other = one_.folder("secret folder");
    auto file = one_.file("inside.txt", "inside");
    file.ParrentId = inner.InternalName;
    const auto outside = one_.file("outside", "outside");
    for (const auto& one : {folder, inner, other})
        ASSERT_EQ(send(one_, kJournalCreate, one, ""), "1");
    ASSERT_EQ(send(one_, kJournalCreate, file, "inside"), "1:2");
    ASSERT_EQ(send(one_, kJournalCreate, outside, "outside"), "1:2");
    const std::string address = "/publiclink.aspx?sao2=" + itemLink(folder);

    const auto list = web(address);
    expectSafe(list);
    EXPECT_NE(list.body.find("&lt;img src=x&gt;/"), std::string::npos) << list.body;
    EXPECT_EQ(list.body.find("secret folder"), std::string::npos);
    EXPECT_EQ(web(address + "&file=" + file.InternalName.str()).body, "inside");
    const auto below = web(address + "&folder=" + inner.InternalName.str());
    EXPECT_NE(below.body.find("inside.txt"), std::string::npos) << below.body;
    EXPECT_NE(below.body.find(">covered</a> / "), std::string::npos) << "the way back";

    const std::string plain = itemLink(file);
    struct {
        std::string target;
        long status;
    } const refused[] = {
        {address + "&folder=" + other.InternalName.str(), 404},
        {address + "&file=" + outside.InternalName.str(), 404},
        {address + "&folder=../" + docs_.id, 404},
        {"/publiclink.aspx?sao2=" + plain, 404},
        {"/publiclink.aspx?saf2=%3Cscript%3E", 404},
        {"/default.aspx", 403},
    };
    for (const auto& one : refused) {
        const auto reply = web(one.target);
        EXPECT_EQ(reply.status, one.status) << one.target;
        expectSafe(reply);
    }
    // Moved away, and back in: the cover is what it is now.
    auto moved = inner;
    moved.ParrentId = docs_.id;
    ASSERT_EQ(send(one_, kJournalRename, moved, ""), "1");
    EXPECT_EQ(web(address + "&file=" + file.InternalName.str()).status, 404);
    EXPECT_EQ(web("/publiclink.aspx?saf2=" + plain + "&download=1").body, "inside") << "its own link goes on";
    ASSERT_EQ(send(one_, kJournalDelete, *known(inner.InternalName.view()), ""), "1");
    EXPECT_EQ(web("/publiclink.aspx?saf2=" + plain + "&download=1").status, 410);
}

TEST_F(LinkTest, linksEndByUseByCommandAndWithTheRightOfTheirMaker) {
    const auto file = one_.file("file", "bytes");
    ASSERT_EQ(send(one_, kJournalCreate, file, "bytes"), "1:2");
    const std::string once = "/publiclink.aspx?saf2=" + itemLink(file, 1);
    EXPECT_EQ(web(once).status, 200);
    EXPECT_EQ(web(once + "&download=1").body, "bytes");
    EXPECT_EQ(web(once + "&download=1").status, 410);
    const std::string lasting = "/publiclink.aspx?saf2=" + itemLink(file);
    const auto command = [&](std::vector<const char*> arguments) {
        const std::string data = folder_.path("data");
        arguments.insert(arguments.begin(), {"tarnwell-service", "--data", data.c_str(), "link"});
        std::istringstream in;
        std::ostringstream out;
        EXPECT_EQ(runCommand(static_cast<int>(arguments.size()), arguments.data(), in, out, out), 0);
        return out.str();
    };
    const auto list = command({"list"});
    EXPECT_NE(list.find("2\tanna@alpha.test\tDocs/file\t"), std::string::npos) << list;
    EXPECT_EQ(list.find(lasting.substr(lasting.find('=') + 1)), std::string::npos);
    command({"revoke", "2"});
    EXPECT_EQ(web(lasting).status, 410);
    const std::string other = "/publiclink.aspx?saf2=" + itemLink(file);
    EXPECT_EQ(web(other).status, 200);
    EXPECT_EQ(client_->get("webclient.beta.localhost", other).status, 404);
    metadata().revoke(docs_.id, anna_.id);
    EXPECT_EQ(web(other).status, 404);
    EXPECT_EQ(itemLink(file).substr(0, 3), "403");

    // Neither ids nor tokens lie in the database.
    for (const char* name : {"data/service.db", "data/service.db-wal"})
        EXPECT_EQ(folder_.read(name).find(other.substr(other.find('=') + 1)), std::string::npos) << name;
}

/// As clients do it: whole blocks, filled up with zeros.
std::string encrypted(std::string text) {
    text.resize((text.size() + 15) / 16 * 16, '\0');
    const auto* vector = reinterpret_cast<const unsigned char*>(kDirectLinkVector.data());
    auto* bytes = reinterpret_cast<unsigned char*>(text.data());
    int count = static_cast<int>(text.size());
    EVP_CIPHER_CTX* const context = EVP_CIPHER_CTX_new();
    EVP_EncryptInit_ex(context, EVP_aes_256_cbc(), nullptr, kDirectLinkKey.data(), vector);
    EVP_CIPHER_CTX_set_padding(context, 0);
    EVP_EncryptUpdate(context, bytes, &count, bytes, count);
    EVP_CIPHER_CTX_free(context);
    return base64Encode(text);
}

TEST_F(LinkTest, aLogInLinkOpensTheSharesOnceAndForItsDevice) {
    for (const std::string& text : {std::string(16, 'x'), std::string(17, 'y'), std::string("z")})
        EXPECT_EQ(decryptDirectLink(encrypted(text)), text);
    for (const char* bad : {"", "not base64!", "AAAAAAAAAAAAAAAAAAAAAA=="})
        EXPECT_TRUE(decryptDirectLink(bad).value_or("").find('{') == std::string::npos) << bad;

    const auto file = one_.file("file", "bytes");
    ASSERT_EQ(send(one_, kJournalCreate, file, "bytes"), "1:2");
    metadata().addShare("Hidden <share>", alpha_.id);
    const auto session = login("alpha.localhost", "anna@alpha.test", "anna's");
    const auto address = [&](const std::string& token, const std::string& parameter) {
        const ShareAShareToken data{"anna@alpha.test", "anna's", parameter, "1", std::nullopt};
        const std::string id = link(token, kLinkWebClient, toJsonText(data), 9, 9);
        return "/default.aspx?sas=" +
               escaped(encrypted(toJsonText(DirectLinkUrl{session.token, id, "anna@alpha.test"})));
    };
    const std::string once = address(session.token, "*LOGIN");
    const auto first = web(once);
    EXPECT_EQ(first.status, 303) << first.body;
    EXPECT_EQ(first.headers.at("location"), "/default.aspx");
    const std::string cookie = first.headers.at("set-cookie");
    for (const char* part : {"; Secure", "; HttpOnly", "; SameSite=Strict", "; Path=/"})
        EXPECT_NE(cookie.find(part), std::string::npos) << cookie;
    const std::string shown = "Cookie: other=1; " + cookie.substr(0, cookie.find(';'));
    EXPECT_EQ(web(once).status, 403) << "a second use";
    EXPECT_EQ(web(address("false", "*LOGIN")).status, 403);
    EXPECT_EQ(web(address(session.token, docs_.id)).headers.at("location"),
              "/default.aspx?share=" + docs_.id);

    const auto shares = web("/default.aspx", {shown});
    expectSafe(shares);
    EXPECT_NE(shares.body.find(">Docs</a>"), std::string::npos) << shares.body;
    EXPECT_EQ(shares.body.find("Hidden"), std::string::npos);
    EXPECT_EQ(shares.body.find(session.token), std::string::npos);
    const std::string share = "/default.aspx?share=" + docs_.id;
    EXPECT_NE(web(share, {shown}).body.find(">file</a>"), std::string::npos);
    EXPECT_EQ(web(share + "&file=" + file.InternalName.str(), {shown}).body, "bytes");
    EXPECT_EQ(web("/default.aspx?share=" + plans_.id, {shown}).status, 404);
    EXPECT_EQ(web(share).status, 403);
    EXPECT_EQ(web(share, {"Cookie: __Host-tarnwell=forged"}).status, 403);
    EXPECT_EQ(client_->get("webclient.beta.localhost", "/default.aspx", {shown}).status, 403);
    for (const auto& one : metadata().links())
        EXPECT_TRUE(one.maxUses == 1 && one.expires && *one.expires - one.created <= std::chrono::minutes(1));
    metadata().wipeDevices(anna_.id, session.reply->DeviceId);
    EXPECT_EQ(web(share, {shown}).status, 403);
}

}  // namespace
}  // namespace tarnwell::service::testing
