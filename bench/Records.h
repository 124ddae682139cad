#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "store/CacheLayout.h"
#include "store/TWMetadataStorage.h"

/// Data of the size that users have, made the same way every time.
namespace tarnwell::bench {

/// A share whose folders stand in a tree three levels deep ("/Share/dept-004/project-012/topic-019/file"), so
/// that a file's path has five components. Ids and names are as long as real ones.
struct Tree {
    ManagedSharePtr share;
    std::vector<TWVirtualFilePtr> folders;  ///< parents before children
    std::vector<TWVirtualFilePtr> files;    ///< spread evenly over the innermost folders
};

/// `records` in all, `folders` of them folders. `prefix` keeps the ids of two trees apart.
Tree makeTree(std::size_t records, std::size_t folders, const std::string& prefix = "a");

TWVirtualFilePtr makeRecord(const std::string& id, const std::string& parentId, const std::string& name,
                            const std::string& shareId, bool isFile, int tick);
ManagedSharePtr makeShare(const std::string& id, const std::string& name);

/// Enters share, folders and files, under one hold of the store's lock.
void insert(TWMetadataStorage& store, const Tree& tree);

/// A store on a temporary cache root, with nobody above it.
class World {
  public:
    World();
    ~World();
    TWMetadataStorage& store() { return *store_; }
    [[nodiscard]] const CacheLayout& layout() const { return *layout_; }

  private:
    struct DroppingExecutor final : Executor {
        void async(std::function<void()>) override {}
    };
    std::string root_;
    SystemClock clock_;
    DroppingExecutor background_;
    std::unique_ptr<CacheLayout> layout_;
    std::unique_ptr<TWMetadataStorage> store_;
};

/// Bytes in use on the heap.
std::size_t heapBytes();

}  // namespace tarnwell::bench
