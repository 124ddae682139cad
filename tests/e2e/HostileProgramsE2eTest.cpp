// Programs on two machines that call whatever comes to mind, by path and by descriptor, in a small tree whose
// folders and files the others move meanwhile. A model says what each call may answer and which bytes a
// reader may see; each owner's last version of each of his files must be on the service in the end.

#include <dirent.h>
#include <sys/syscall.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "e2e/Hostile.h"

namespace tarnwell::testing {
namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;
using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kToken = 8, kSmall = 4096;
constexpr int kNoReplace = 1;

/// What is true of all programs together. For any thread.
class Model {
  public:
    explicit Model(unsigned seed) : seed_(seed) {}
    /// A new version: its token, again and again.
    std::string version(std::size_t size) {
        const std::lock_guard lock(mutex_);
        std::string token = std::to_string(10'000'000 + versions_.size());
        versions_[token] = size;
        std::string bytes;
        while (bytes.size() < size)
            bytes += token;
        return bytes;
    }
    /// Bytes that a reader got from one handle.
    void saw(const std::string& name, const std::string& bytes) {
        if (bytes.empty()) return;  // created, and not written yet
        const std::string token = bytes.substr(0, kToken);
        const std::lock_guard lock(mutex_);
        const auto known = versions_.find(token);
        bool whole = known != versions_.end() && known->second == bytes.size();
        for (std::size_t at = 0; whole && at < bytes.size(); at += kToken)
            whole = bytes.compare(at, kToken, token) == 0;
        if (!whole)
            fault(name + " shows " + std::to_string(bytes.size()) + " bytes that begin with " + token);
    }
    /// The answer of a call; `allowed` besides success.
    bool answered(const char* call, const std::string& name, int error, std::initializer_list<int> allowed) {
        ++calls_;
        if (error == 0) return true;
        if (std::find(allowed.begin(), allowed.end(), error) == allowed.end()) {
            const std::lock_guard lock(mutex_);
            // By path the kernel looks a second time; who is replaced twice meanwhile hears of it.
            if (error == ESTALE && ++stale_ <= 10) return false;
            fault(std::string(call) + " " + name + ": " + strerror(error));
        }
        return false;
    }
    ~Model() { EXPECT_EQ(faults_, 0) << "of " << calls_ << " calls, seed " << seed_ << ":\n" << text_; }

  private:
    void fault(const std::string& text) {
        if (++faults_ <= 10) text_ += text + "\n";
    }
    const unsigned seed_;
    std::atomic<int> calls_{0};
    std::mutex mutex_;
    std::map<std::string, std::size_t> versions_;
    int faults_ = 0, stale_ = 0;
    std::string text_;
};

/// One program: owns the contents of its files ("f<number>-<k>") and moves everybody's.
class Program {
  public:
    Program(Model& model, std::string top, int number, unsigned seed)
        : model_(model),
          top_(std::move(top)),
          number_(number),
          random_(seed + static_cast<unsigned>(number)) {}

    void run(SteadyClock::time_point end) {
        constexpr std::array kSteps{&Program::create,       &Program::saveByRename, &Program::writeInPlace,
                                    &Program::remove,       &Program::readSlowly,   &Program::readSlowly,
                                    &Program::moveFile,     &Program::moveFile,     &Program::moveFolder,
                                    &Program::moveFolder,   &Program::makeFolder,   &Program::removeFolder,
                                    &Program::workInFolder, &Program::look,         &Program::look};
        while (SteadyClock::now() < end) {
            walk();
            (this->*kSteps[random_() % kSteps.size()])();
        }
    }
    /// The last version of each of its files that it closed with success. Where a write failed, either of
    /// two.
    [[nodiscard]] const std::map<std::string, std::set<std::string>>& last() const { return last_; }

  private:
    [[nodiscard]] std::string path(const std::string& name) const { return top_ + name; }
    std::string any(const std::vector<std::string>& from) {
        return from.empty() ? "" : from[random_() % from.size()];
    }
    static std::string nameOf(const std::string& path) { return path.substr(path.rfind('/') + 1); }
    static std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

    void walk() {
        files_.clear();
        own_.clear();
        folders_.assign(1, "");
        for (std::size_t i = 0; i < folders_.size() && i < 40; ++i) {
            const std::string folder = folders_[i];
            DIR* stream = opendir(path(folder).c_str());
            model_.answered("opendir", folder, stream ? 0 : errno, {ENOENT, ENOTDIR});
            if (!stream) continue;
            while (const auto* entry = readdir(stream)) {
                const std::string name = entry->d_name, inside = folder + "/" + name;
                if (name.starts_with('d')) folders_.push_back(inside);
                if (name.starts_with('f')) files_.push_back(inside);
                if (name.starts_with("f" + std::to_string(number_) + "-")) own_.push_back(inside);
            }
            closedir(stream);
        }
    }

    /// Writes all through a handle and closes it.
    bool write(int file, const std::string& name, const std::string& bytes) {
        bool good = true;
        for (std::size_t at = 0; good && at < bytes.size();) {
            const auto count = pwrite(file, bytes.data() + at, bytes.size() - at, static_cast<off_t>(at));
            good = model_.answered("write", name, errorOf(count), {ESTALE, EIO});
            if (good) at += static_cast<std::size_t>(count);
        }
        return model_.answered("close", name, errorOf(close(file)), {ESTALE, EIO}) && good;
    }

    void create() {
        if (own_.size() >= 5) return;
        const std::string name = "f" + std::to_string(number_) + "-" + std::to_string(made_++);
        const std::string place = any(folders_) + "/" + name;
        const int file = open(path(place).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (!model_.answered("create", place, errorOf(file), {ENOENT, ENOTDIR})) return;
        const std::string bytes = model_.version(kSmall);
        if (write(file, place, bytes)) last_[name] = {bytes.substr(0, kToken)};
    }

    void saveByRename() {
        const std::string place = any(own_);
        if (place.empty()) return;
        const std::string saved =
            folderOf(place) + "/n" + std::to_string(number_) + "-" + std::to_string(made_++);
        const int file = open(path(saved).c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (!model_.answered("create", saved, errorOf(file), {ENOENT, ENOTDIR})) return;
        const std::string bytes = model_.version(kToken * (1 + random_() % 40'000));
        if (!write(file, saved, bytes)) return;
        if (model_.answered("rename over", place, errorOf(rename(path(saved).c_str(), path(place).c_str())),
                            {ENOENT, ENOTDIR}))
            last_[nameOf(place)] = {bytes.substr(0, kToken)};
    }

    /// Small files only: a single request, which no reader can see half of.
    void writeInPlace() {
        const std::string place = any(own_);
        if (place.empty()) return;
        const int file = open(path(place).c_str(), O_RDWR | O_CLOEXEC);
        if (!model_.answered("open to write", place, errorOf(file), {ENOENT, ENOTDIR})) return;
        struct stat status {};
        std::string old(kToken, '\0');
        const bool small =
            model_.answered("fstat", place, errorOf(fstat(file, &status)), {ESTALE}) &&
            status.st_size == static_cast<off_t>(kSmall) &&
            model_.answered("read", place, errorOf(pread(file, old.data(), kToken, 0)), {ESTALE, EIO});
        auto& last = last_[nameOf(place)];
        if (!small || !last.contains(old)) {
            close(file);
            return;
        }
        pause(50);
        const std::string bytes = model_.version(kSmall);
        if (write(file, place, bytes)) last.clear();
        last.insert(bytes.substr(0, kToken));
    }

    void remove() {
        const std::string place = any(own_), name = nameOf(place);
        if (place.empty() || random_() % 2 == 0) return;
        const int folder = open(path(folderOf(place)).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (!model_.answered("open folder", place, errorOf(folder), {ENOENT, ENOTDIR})) return;
        const int file = openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC);
        std::string token(kToken, '\0');
        if (model_.answered("openat", place, errorOf(file), {ENOENT, ESTALE})) {
            const bool read =
                model_.answered("read", place, errorOf(pread(file, token.data(), kToken, 0)), {ESTALE, EIO});
            close(file);
            if (read &&
                model_.answered("unlinkat", place, errorOf(unlinkat(folder, name.c_str(), 0)),
                                {ENOENT, ESTALE}) &&
                last_[name].contains(token))
                last_.erase(name);
        }
        close(folder);
    }

    void readSlowly() {
        const std::string place = any(files_);
        if (place.empty()) return;
        const int file = open(path(place).c_str(), O_RDONLY | O_CLOEXEC);
        if (!model_.answered("open", place, errorOf(file), {ENOENT, ENOTDIR})) return;
        std::string bytes, piece(random_() % 2 == 0 ? kSmall : 100'000, '\0');
        for (bool more = true; more;) {
            const auto count = pread(file, piece.data(), piece.size(), static_cast<off_t>(bytes.size()));
            if (!model_.answered("read", place, errorOf(count), {ESTALE, EIO})) break;
            bytes.append(piece, 0, static_cast<std::size_t>(count));
            more = count > 0;
            if (!more) model_.saw(place, bytes);
            if (more && count > static_cast<ssize_t>(kSmall) && random_() % 3 == 0) pause(300);
        }
        close(file);
    }

    int renameToFreePlace(const std::string& from, const std::string& to) {
        return errorOf(
            syscall(SYS_renameat2, AT_FDCWD, path(from).c_str(), AT_FDCWD, path(to).c_str(), kNoReplace));
    }
    void moveFile() {
        const std::string place = any(files_);
        if (place.empty()) return;
        model_.answered("rename", place, renameToFreePlace(place, any(folders_) + "/" + nameOf(place)),
                        {ENOENT, ENOTDIR, EEXIST});
    }
    void moveFolder() {
        const std::string from = any(folders_);
        if (from.empty()) return;
        model_.answered("rename of folder", from, renameToFreePlace(from, any(folders_) + "/" + folderName()),
                        {ENOENT, ENOTDIR, EEXIST, EINVAL});
    }
    std::string folderName() { return "d" + std::to_string(random_() % 6); }
    void makeFolder() {
        const std::string place = any(folders_) + "/" + folderName();
        if (folders_.size() < 12)
            model_.answered("mkdir", place, errorOf(mkdir(path(place).c_str(), 0755)),
                            {ENOENT, ENOTDIR, EEXIST});
    }
    void removeFolder() {
        const std::string place = any(folders_);
        if (!place.empty())
            model_.answered("rmdir", place, errorOf(rmdir(path(place).c_str())),
                            {ENOENT, ENOTDIR, ENOTEMPTY});
    }
    /// Through the descriptor of a folder that may be moved or removed before.
    void workInFolder() {
        const std::string place = any(folders_);
        const int folder = open(path(place).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (!model_.answered("open folder", place, errorOf(folder), {ENOENT, ENOTDIR})) return;
        pause(30);
        struct stat status {};
        model_.answered("fstat of folder", place, errorOf(fstat(folder, &status)), {ESTALE});
        const std::string name = "d" + std::to_string(10 + number_);  // nobody else's
        if (model_.answered("mkdirat", place, errorOf(mkdirat(folder, name.c_str(), 0755)),
                            {ENOENT, ESTALE, EEXIST})) {
            // Others may move it away or put something in.
            model_.answered("fstatat", place, errorOf(fstatat(folder, name.c_str(), &status, 0)),
                            {ENOENT, ESTALE});
            model_.answered("unlinkat of folder", place,
                            errorOf(unlinkat(folder, name.c_str(), AT_REMOVEDIR)),
                            {ENOENT, ESTALE, ENOTEMPTY});
        }
        close(folder);
    }
    void look() {
        const std::string place = random_() % 2 == 0 ? any(files_) : any(folders_);
        struct stat status {};
        model_.answered("stat", place, errorOf(stat(path(place).c_str(), &status)), {ENOENT, ENOTDIR});
        model_.answered("utimes", place, errorOf(utimensat(AT_FDCWD, path(place).c_str(), nullptr, 0)),
                        {ENOENT, ENOTDIR, EACCES});  // EACCES: of the share itself
    }
    void pause(unsigned most) { std::this_thread::sleep_for(std::chrono::milliseconds(random_() % most)); }

    Model& model_;
    const std::string top_;
    const int number_;
    std::mt19937 random_;
    int made_ = 0;
    std::vector<std::string> files_, own_, folders_;
    std::map<std::string, std::set<std::string>> last_;
};

struct HostileProgramsE2eTest : HostileTest {};

TEST_F(HostileProgramsE2eTest, onTwoMachinesEndWithEveryLastVersion) {
    const unsigned seed = testing::seed();
    SCOPED_TRACE(testing::replayWith(seed));
    begin();
    auto& other = world->otherClient();
    start(other);
    Model model(seed);
    std::vector<Program> programs;
    for (int number = 0; number < 5; ++number)
        programs.emplace_back(model, (number < 3 ? client() : other).path("/Papers"), number, seed);
    const auto end = SteadyClock::now() + 15s;
    std::vector<std::thread> threads;
    for (auto& program : programs)
        threads.emplace_back([&program, end] { program.run(end); });
    while (SteadyClock::now() < end) {
        client().refresh();
        other.refresh();
        std::this_thread::sleep_for(500ms);
    }
    for (auto& thread : threads)
        thread.join();

    ASSERT_TRUE(client().waitForUploads(120s));
    ASSERT_TRUE(other.waitForUploads(120s));
    expectDriveIsService();
    const Tree service = synchronised(exported());
    EXPECT_TRUE(eventually([&] {
        other.refresh();
        try {
            return synchronised(readTree(other.path("/Papers"))) == service;
        } catch (const std::exception&) {
            return false;  // it changed meanwhile
        }
    })) << "service: "
        << names(service) << "\nother:   " << names(synchronised(readTree(other.path("/Papers"))));
    std::set<std::string> found;
    for (const auto& [path, entry] : service) {
        if (entry.isFolder) continue;
        model.saw(path, entry.contents);
        found.insert(entry.contents.substr(0, kToken));
    }
    for (const auto& program : programs) {
        for (const auto& [name, versions] : program.last()) {
            if (versions.empty()) continue;  // looked for, never closed
            EXPECT_TRUE(std::any_of(versions.begin(), versions.end(),
                                    [&](const auto& v) { return found.contains(v); }))
                << name << ": version " << *versions.begin() << " is nowhere";
        }
    }
}

}  // namespace
}  // namespace tarnwell::testing
