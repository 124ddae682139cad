#include "connector/UploadEngine.h"

#include <fcntl.h>

#include <memory>
#include <utility>

#include "connector/FileDescriptor.h"
#include "connector/TaskGate.h"
#include "connector/Transmissions.h"
#include "connector/Upload.h"
#include "connector/UploadFiles.h"
#include "store/TWMetadataStorage.h"
#include "util/Hash.h"
#include "util/TWLogger.h"

namespace tarnwell {

void UploadEngine::uploadFileChangeNew(const LocalJournalPtr& entry) {
    const auto lock = context_.environment.store.beginWriteStorage();
    const auto share = context_.transmissions.begin(entry);
    if (!share) return;
    TWLog(kLogMain, "new api: uploading entry %@ with size %@. File tick %d", entry->File->PublicName,
          entry->File->size(), entry->File->Tick);
    std::make_shared<Upload>(context_, *this, entry, *share)->start();
}

std::string UploadEngine::calculateFileHash(const std::string& path) {
    const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file) {
        TWLog(kLogMain, "Warning! Cannot open file %@ to calculate hash. I don't like it.", path);
        return calculateChunkHash({});
    }
    return hashOfOpenFile(file.get(), [] { return false; }).value_or(calculateChunkHash({}));
}

std::string UploadEngine::calculateChunkHash(std::string_view bytes) {
    return hashText(bytes);
}

void UploadEngine::pause(std::chrono::milliseconds delay, std::function<void()> task) {
    const std::lock_guard lock(mutex_);
    const auto id = ++lastPause_;
    pauses_[id] = context_.environment.mainLoop.postAfter(
        delay, context_.gate.guard([this, id, task = std::move(task)] {
            Timer over;
            {
                const std::lock_guard inner(mutex_);
                if (const auto found = pauses_.find(id); found != pauses_.end()) {
                    over = std::move(found->second);
                    pauses_.erase(found);
                }
            }
            task();
        }));
}

}  // namespace tarnwell
