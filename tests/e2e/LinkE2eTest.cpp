// A public link, from the command on one machine to the file in somebody's browser.

#include <filesystem>

#include "e2e/E2eTest.h"

namespace tarnwell::testing {
namespace {

namespace fs = std::filesystem;

struct LinkE2eTest : E2eTest {
    /// Without a display there is no clipboard: the log has the link.
    std::string linkOf(const std::string& name) {
        EXPECT_EQ(client().run({"send", "createlink:" + papers(name)}).status, 0);
        const std::string line = "link of " + name + ": ";
        std::string link;
        EXPECT_TRUE(eventually([&] {
            const std::string log = client().log();
            const auto at = log.rfind(line);
            if (at == std::string::npos) return false;
            link = log.substr(at + line.size(), log.find('\n', at) - at - line.size());
            return true;
        }));
        return link;
    }
    ProgramResult curl(const std::string& url) {
        return runProgram({"/usr/bin/curl", "-sS", "--fail-with-body", "--cacert",
                           world->folder().path("service/tls/ca.pem"), url},
                          world->folder().path("curl.out"));
    }
    /// The browser's result; status 77 where there is none.
    ProgramResult browse(const std::string& url) {
        return runProgram({"/usr/bin/env", "python3", TARNWELL_E2E "/browse_link.py", url, browser()},
                          world->folder().path("browser.out"));
    }
    [[nodiscard]] std::string browser() const { return world->folder().path("browser"); }
};

TEST_F(LinkE2eTest, aFileReachesABrowserAsItIs) {
    if (access("/usr/bin/curl", X_OK) != 0) GTEST_SKIP() << "no curl on this machine";
    const std::string name = "<img src=x onerror=alert(1)> & \"caf\u00e9\".txt";
    import({{ name, randomBytes(300'000) }});
    start(name);
    ASSERT_TRUE(client().waitForState("online"));
    const std::string link = linkOf(name);
    ASSERT_TRUE(link.starts_with("https://webclient.example.localhost:")) << link;
    const auto page = curl(link);
    EXPECT_EQ(page.status, 0) << page.output;
    EXPECT_EQ(page.output.find("<img"), std::string::npos) << page.output;
    EXPECT_NE(page.output.find("&lt;img"), std::string::npos) << page.output;

    const auto seen = browse(link);
    if (seen.status != 77) {
        ASSERT_EQ(seen.status, 0) << seen.output;
        EXPECT_NE(seen.output.find("<img src=x onerror=alert(1)>"), std::string::npos) << "shown as text";
        EXPECT_EQ(seen.output.find("\"img\""), std::string::npos) << "and as nothing else: " << seen.output;
        EXPECT_EQ(seen.output.find("\"script\""), std::string::npos) << seen.output;
        const auto saved = *fs::directory_iterator(browser() + "/downloads");
        EXPECT_TRUE(readRange(saved.path(), 0, 400'000) == randomBytes(300'000)) << saved.path();
    }

    // Taken back by whoever runs the service.
    const auto list = world->service({"link", "list"});
    const std::string id = list.output.substr(0, list.output.find_first_of("\t \n"));
    world->service({"link", "revoke", id});
    EXPECT_NE(curl(link).status, 0);
}

}  // namespace
}  // namespace tarnwell::testing
