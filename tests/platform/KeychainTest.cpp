#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "platform/FileKeychain.h"
#include "platform/SecretServiceKeychain.h"
#include "support/LogCapture.h"
#include "support/PrivateBus.h"

#if defined(__SANITIZE_THREAD__)
// The system's libraries are not built for the thread sanitizer, which cannot see what their own threads
// lock.
extern "C" const char* __tsan_default_suppressions();
extern "C" const char* __tsan_default_suppressions() {
    return "race:libglib-2.0.so\nrace:libgio-2.0.so\nrace:libgobject-2.0.so\nrace:libsecret-1.so\n";
}
#endif

namespace tarnwell {
namespace {

using namespace std::chrono_literals;
using testing::LogCapture;
using testing::PrivateBus;
using testing::SideProgram;
using testing::TemporaryFolder;

/// A private session bus with an unlocked keyring on it, under a home folder of its own. The bus starts no
/// services: the first question would otherwise bring up a second keyring, which is locked, and the two would
/// race for the name.
class PrivateSecretService {
  public:
    [[nodiscard]] bool started() const { return bus_.started(); }

  private:
    /// Settles HOME before the keyring starts.
    std::string command() {
        for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
            ::setenv(name, bus_.folder().path().c_str(), 1);
        return "gnome-keyring-daemon --foreground --unlock --components=secrets <" +
               bus_.folder().write("password", "test");
    }
    PrivateBus bus_;
    SideProgram keyring_{command()};
};

enum class Kind { kFile, kSecretService };

class KeychainContract : public ::testing::TestWithParam<Kind> {
  public:
    void SetUp() override {
        if (GetParam() == Kind::kFile) {
            keychain_ = std::make_unique<FileKeychain>(folder_.path("private/keys"));
            return;
        }
        if (::system("command -v dbus-daemon >/dev/null && command -v gnome-keyring-daemon >/dev/null") != 0)
            GTEST_SKIP() << "dbus-daemon or gnome-keyring-daemon is not installed";
        service_ = std::make_unique<PrivateSecretService>();
        ASSERT_TRUE(service_->started());
        keychain_ = std::make_unique<SecretServiceKeychain>();
        // The keyring takes a moment to appear on the bus.
        const auto end = std::chrono::steady_clock::now() + 10s;
        while (!keychain_->setPassword("probe", "probe", "x") && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
    }
    Keychain& keychain() { return *keychain_; }

  private:
    TemporaryFolder folder_;
    std::unique_ptr<PrivateSecretService> service_;
    std::unique_ptr<Keychain> keychain_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, KeychainContract, ::testing::Values(Kind::kFile, Kind::kSecretService),
                         [](const auto& info) {
                             return info.param == Kind::kFile ? "File" : "SecretService";
                         });

TEST_P(KeychainContract, keepsPasswordsByServiceAndAccount) {
    const std::string service = "Fern Disk.keys", other = "Tarnwell.keys";
    EXPECT_THAT(keychain().accounts(service), ::testing::IsEmpty());
    EXPECT_EQ(keychain().password(service, "ann@example.org"), std::nullopt);

    const std::string awkward = " p\tä\\ss=wörd\n\"日本\" ";
    EXPECT_TRUE(keychain().setPassword(service, "ann@example.org", "first"));
    EXPECT_TRUE(keychain().setPassword(service, "ann@example.org", awkward));
    EXPECT_TRUE(keychain().setPassword(service, "bob\t@ex=ample", ""));
    EXPECT_TRUE(keychain().setPassword(other, "ann@example.org", "elsewhere"));
    EXPECT_THAT(keychain().accounts(service), ::testing::ElementsAre("ann@example.org", "bob\t@ex=ample"));
    EXPECT_EQ(keychain().password(service, "ann@example.org"), awkward);
    EXPECT_EQ(keychain().password(service, "bob\t@ex=ample"), "");

    EXPECT_TRUE(keychain().deletePassword(service, "ann@example.org"));
    EXPECT_FALSE(keychain().deletePassword(service, "ann@example.org"));
    EXPECT_THAT(keychain().accounts(service), ::testing::ElementsAre("bob\t@ex=ample"));
    EXPECT_EQ(keychain().password(other, "ann@example.org"), "elsewhere");
}

TEST(FileKeychainTest, passwordsArePrivateAndOutliveTheProcess) {
    TemporaryFolder folder;
    const auto path = folder.path("keys");
    EXPECT_TRUE(FileKeychain(path).setPassword("s", "ann", "secret"));
    struct stat status {};
    ASSERT_EQ(::stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    FileKeychain again(path);
    EXPECT_EQ(again.password("s", "ann"), "secret");
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&, i] { FileKeychain(path).setPassword("s", std::to_string(i), "x"); });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(again.accounts("s").size(), 5u);
}

TEST(FileKeychainTest, refusesFilesThatOthersReachOrThatAreDamaged) {
    const struct {
        const char* contents;
        mode_t mode;
        const char* logged;
    } cases[] = {{"s\tann\tsecret\n", 0640, "others can reach it (mode 640"},
                 {"s\tann\tsecret", 0600, "is damaged"},
                 {"s\tann\tbad\\q\n", 0600, "is damaged"},
                 {"s\tann\tsecret\tmore\n", 0600, "is damaged"}};
    for (const auto& [contents, mode, logged] : cases) {
        LogCapture log;
        TemporaryFolder folder;
        const auto path = folder.write("keys", contents);
        ASSERT_EQ(::chmod(path.c_str(), mode), 0);
        FileKeychain keychain(path);
        EXPECT_EQ(keychain.password("s", "ann"), std::nullopt) << contents;
        EXPECT_THAT(keychain.accounts("s"), ::testing::IsEmpty());
        EXPECT_FALSE(keychain.setPassword("s", "bob", "x"));
        EXPECT_FALSE(keychain.deletePassword("s", "ann"));
        EXPECT_EQ(folder.read("keys"), contents) << "a refused file was written over";
        EXPECT_TRUE(log.contains(logged)) << log.text();
        EXPECT_FALSE(log.contains("secret"));
    }
}

TEST(SecretServiceKeychainTest, deadBusCostsOneDeadline) {
    LogCapture log;
    TemporaryFolder folder;
    // Accepts connections and never speaks.
    const int mute = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    folder.path("bus").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(mute, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(mute, 4), 0);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + folder.path("bus")).c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    {
        SecretServiceKeychain keychain(200ms);
        EXPECT_THAT(keychain.accounts("s"), ::testing::IsEmpty());
        for (int i = 0; i < 20; ++i)
            EXPECT_FALSE(keychain.setPassword("s", "a", "x"));
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
    EXPECT_TRUE(log.contains("did not answer in time")) << log.text();
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
    ::close(mute);
}

}  // namespace
}  // namespace tarnwell
