// What a forgetful disk takes from a real folder, and the states that it writes into one.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <limits>
#include <system_error>

#include "disk/ForgetfulDisk.h"

namespace tarnwell::testing {

namespace fs = std::filesystem;

namespace {

[[noreturn]] void fail(const std::string& path) {
    throw std::system_error(errno, std::generic_category(), path);
}

std::map<std::string, std::string> extendedAttributesOf(const std::string& path) {
    std::map<std::string, std::string> attributes;
    std::string names(65536, '\0');
    const auto length = ::llistxattr(path.c_str(), names.data(), names.size());
    names.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    for (std::size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
        const std::string name = names.c_str() + at;
        std::string value(65536, '\0');
        const auto size = ::lgetxattr(path.c_str(), name.c_str(), value.data(), value.size());
        if (!name.starts_with("user.") || size < 0) continue;
        value.resize(static_cast<std::size_t>(size));
        attributes[name] = value;
    }
    return attributes;
}

/// A descriptor of its own for the time of one function.
class OpenFile {
  public:
    OpenFile(const std::string& path, int flags)
        : descriptor_(::open(path.c_str(), flags | O_CLOEXEC, 0600)) {
        if (descriptor_ < 0) fail(path);
    }
    ~OpenFile() { ::close(descriptor_); }
    OpenFile(const OpenFile&) = delete;
    OpenFile& operator=(const OpenFile&) = delete;
    [[nodiscard]] int get() const { return descriptor_; }

  private:
    const int descriptor_;
};

void writeAttributes(const ForgetfulDisk::Attributes& attributes, const std::string& path) {
    for (const auto& [name, value] : attributes.extended) {
        if (::lsetxattr(path.c_str(), name.c_str(), value.data(), value.size(), 0) != 0) fail(path);
    }
    if (S_ISLNK(attributes.mode)) return;
    if (::chmod(path.c_str(), attributes.mode & 07777) != 0) fail(path);
    const timespec times[] = {attributes.accessed, attributes.modified};
    if (::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW) != 0) fail(path);
}

}  // namespace

void ForgetfulDisk::takeOver(const std::string& folder) {
    std::map<std::string, Id> numbers;
    std::ifstream list(folder + "/files");
    std::string path;
    for (Id id = 0; list >> id && std::getline(list.ignore(), path, '\0'); last_ = std::max(last_, id))
        numbers[folder + "/state" + path] = id;
    std::map<Id, Id> taken;
    takeOverFolder(kRoot, folder + "/state", numbers, taken);
    commitFirst(journal_.size());
}

void ForgetfulDisk::takeOverFolder(Id folder, const std::string& path,
                                   const std::map<std::string, Id>& numbers, std::map<Id, Id>& taken) {
    for (const auto& item : fs::directory_iterator(path)) {
        const std::string source = item.path().string();
        const std::string name = item.path().filename().string();
        struct stat status {};
        if (::lstat(source.c_str(), &status) != 0) fail(source);
        if (!S_ISREG(status.st_mode) && !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode)) continue;
        const auto number = numbers.find(source);
        const Id wanted = number == numbers.end() ? 0 : number->second;
        if (const auto other = taken.find(wanted); wanted != 0 && other != taken.end()) {
            link(other->second, folder, name);
            continue;
        }
        int error = 0;
        const Id id = create(folder, name, status.st_mode, error,
                             S_ISLNK(status.st_mode) ? fs::read_symlink(item.path()).string() : "", wanted);
        if (id == 0) throw std::system_error(error, std::generic_category(), source);
        taken[id] = id;
        if (S_ISDIR(status.st_mode)) takeOverFolder(id, source, numbers, taken);
        File& taken = files_.at(id);
        if (S_ISREG(status.st_mode)) {
            const OpenFile in(source, O_RDONLY);
            std::string bytes(1 << 20, '\0');
            std::int64_t at = 0;
            for (ssize_t count = 0; (count = ::pread(in.get(), bytes.data(), bytes.size(), at)) > 0;
                 at += count)
                write(id, at, std::string_view(bytes).substr(0, static_cast<std::size_t>(count)));
            taken.contents.sync();
        }
        taken.attributes.extended = extendedAttributesOf(source);
        taken.attributes.modified = status.st_mtim;
        taken.attributes.accessed = status.st_atim;
        attributesChanged(id);
    }
}

void ForgetfulDisk::writeState(const std::string& folder, bool durable) const {
    fs::create_directories(folder + "/state");
    std::ofstream numbers(folder + "/files", std::ios::binary);
    writeFolder(kRoot, folder + "/state", "", durable, numbers);
    if (!numbers.flush()) fail(folder + "/files");
}

void ForgetfulDisk::writeFolder(Id folder, const std::string& top, const std::string& path, bool durable,
                                std::ostream& numbers) const {
    const File& shown = files_.at(folder);
    for (const auto& [name, id] : durable ? shown.durableEntries : shown.entries) {
        const File& entry = files_.at(id);
        const Attributes& attributes = durable ? entry.durableAttributes : entry.attributes;
        const std::string target = top + path + "/" + name;
        numbers << id << ' ' << path << '/' << name << '\0';
        if (S_ISDIR(attributes.mode)) {
            if (::mkdir(target.c_str(), 0700) != 0) fail(target);
            writeFolder(id, top, path + "/" + name, durable, numbers);
        } else if (S_ISLNK(attributes.mode)) {
            fs::create_symlink(entry.target, target);
        } else if (S_ISREG(attributes.mode)) {
            const OpenFile out(target, O_WRONLY | O_CREAT | O_EXCL);
            const auto page = [&](std::int64_t offset, std::string_view bytes) {
                if (::pwrite(out.get(), bytes.data(), bytes.size(), offset) != std::ssize(bytes))
                    fail(target);
            };
            if (durable) {
                entry.contents.eachDurablePage(page);
            } else {
                entry.contents.eachPageNow(page);
            }
            const auto size = durable ? entry.contents.durableSize() : entry.contents.size();
            if (::ftruncate(out.get(), size) != 0) fail(target);
        } else {
            continue;  // sockets
        }
        writeAttributes(attributes, target);
    }
}

void ForgetfulDisk::writeNow(const std::string& folder) const {
    writeState(folder, false);
}

void ForgetfulDisk::writeCut(std::uint64_t seed, const std::string& folder) const {
    using Keep = FileContents::Keep;
    FileContents::Random random(seed);
    ForgetfulDisk after(*this);
    // Cuts that lose most of one kind and nothing of the other find what the evenly mixed ones do not.
    const auto pick = [&random] { return static_cast<Keep>(random() % 3); };
    const Keep names = pick();
    const bool anyContents = random() % 3 == 0;
    const Keep contents = pick();
    const std::size_t count = names == Keep::kAll       ? journal_.size()
                              : names == Keep::kNothing ? 0
                                                        : random() % (journal_.size() + 1);
    if (mode_ == Mode::kOrdered || names != Keep::kAny) {
        after.commitFirst(count);
    } else {
        after.commitSome([&](const Operation&) { return random() % 2 == 0; });
    }
    const auto position =
        mode_ == Mode::kOrdered ? noted_ - after.journal_.size() : std::numeric_limits<std::uint64_t>::max();
    for (auto& [id, file] : after.files_)
        file.contents.cut(random, anyContents ? pick() : contents, position);
    after.writeState(folder, true);
}

std::string ForgetfulDisk::pathOf(Id id) const {
    for (const auto& [folder, file] : files_) {
        for (const auto& [name, entry] : file.entries) {
            if (entry == id) return folder == kRoot ? "/" + name : pathOf(folder) + "/" + name;
        }
    }
    return "?";
}

}  // namespace tarnwell::testing
