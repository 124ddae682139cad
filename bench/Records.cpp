#include "bench/Records.h"

#include <malloc.h>
#include <stdlib.h>

#include <filesystem>

#include "store/Enums.h"
#include "util/Format.h"

namespace tarnwell::bench {

namespace {

/// 36 characters, the length of a UUID, different for every number.
std::string guidLike(const std::string& prefix, std::size_t number) {
    return format("%08d-%s-4000-8000-000000000000", number, (prefix + "bcd").substr(0, 4));
}

std::string name(const char* kind, std::size_t number) {
    return format("%s-%05d", kind, number);
}

}  // namespace

TWVirtualFilePtr makeRecord(const std::string& id, const std::string& parentId, const std::string& name,
                            const std::string& shareId, bool isFile, int tick) {
    auto file = std::make_shared<TWVirtualFile>();
    file->ShareId = shareId;
    file->InternalName = id;
    file->ParrentId = parentId;
    file->PublicName = name;
    file->User = "someone@example.org";
    file->Tick = tick;
    file->IsFile = isFile;
    file->Attributes = isFile ? kAttributesFile : kAttributesFolder;
    file->EndOfFile = isFile ? tick * 7 : 0;
    file->AllocationSize = file->EndOfFile;
    file->CreationTime = file->LastAccessTime = file->LastWriteTime =
        dateWithTicks(638000000000000000 + tick);
    if (isFile) {
        file->UploadName = "U" + id.substr(1);
        file->UploadUrl = "read.aspx/U" + id.substr(1);
        file->FilehHash = "D4-1D-8C-D9-8F-00-B2-04-E9-80-09-98-EC-F8-42-7E";
    }
    return file;
}

ManagedSharePtr makeShare(const std::string& id, const std::string& name) {
    auto share = std::make_shared<ManagedShare>();
    share->ShareId = id;
    share->ShareName = share->DisplayName = name;
    share->LastApplyedJournalTick = -1;
    return share;
}

Tree makeTree(std::size_t records, std::size_t folders, const std::string& prefix) {
    Tree tree;
    const std::string shareId = "S" + guidLike(prefix, 0);
    tree.share = makeShare(shareId, "Share " + prefix);
    int tick = 0;
    // A fixed fan-out of 27 fills three levels with about 20,000 folders.
    std::vector<std::string> level{shareId}, innermost;
    for (const char* kind : {"department", "project", "topic"}) {
        std::vector<std::string> next;
        for (const auto& parent : level) {
            for (std::size_t i = 0; i < 27 && tree.folders.size() < folders; ++i) {
                const auto number = tree.folders.size();
                const auto id = "F" + guidLike(prefix, number) + guidLike("f", number);
                tree.folders.push_back(makeRecord(id, parent, name(kind, i), shareId, false, ++tick));
                next.push_back(id);
            }
        }
        if (next.empty()) break;
        level = innermost = std::move(next);
    }
    for (std::size_t i = 0; tree.files.size() + tree.folders.size() < records; ++i) {
        const auto id = "F" + guidLike(prefix, 1'000'000 + i) + guidLike("e", i);
        const auto& parent = innermost.empty() ? shareId : innermost[i % innermost.size()];
        tree.files.push_back(makeRecord(id, parent, name("document", i) + ".odt", shareId, true, ++tick));
    }
    return tree;
}

void insert(TWMetadataStorage& store, const Tree& tree) {
    const auto lock = store.beginWriteStorage();
    store.insertShare(tree.share);
    for (const auto& folder : tree.folders)
        store.addFileMetadata(folder);
    for (const auto& file : tree.files)
        store.addFileMetadata(file);
}

World::World() {
    auto pattern = (std::filesystem::temp_directory_path() / "tarnwell-bench-XXXXXX").string();
    if (!mkdtemp(pattern.data())) throw std::runtime_error("cannot make a temporary folder");
    root_ = pattern;
    layout_ = std::make_unique<CacheLayout>(
        CacheLayout::Locations{root_, root_ + "/data", root_ + "/cache", "Tarnwell", ""});
    layout_->initCachePathes();
    store_ = std::make_unique<TWMetadataStorage>(
        TWMetadataStorage::Environment{*layout_, clock_, background_, [] { return std::string(); }, [] {}});
}

World::~World() {
    store_.reset();
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
}

std::size_t heapBytes() {
    const auto info = mallinfo2();
    return info.uordblks + info.hblkhd;
}

}  // namespace tarnwell::bench
