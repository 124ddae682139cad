#include "connector/DownloadQueue.h"

#include <algorithm>

namespace tarnwell {

bool DownloadQueue::add(TWDownloadOperationPtr operation) {
    const std::lock_guard lock(mutex_);
    const auto found = operations_.find(operation->uploadName);
    if (found == operations_.end()) {
        insert(operation);
        changed();
        return false;
    }
    const auto& queued = found->second;
    if (queued == running_) {
        if (queued->cancel)
            again_ = std::move(operation);
        else if (!operation->automaticDownload)
            queued->automaticDownload = false;
        return true;
    }
    orderOf(*queued).erase(queued);
    queued->taskDate = operation->taskDate;
    if (!operation->automaticDownload) queued->automaticDownload = false;
    orderOf(*queued).insert(queued);
    changed();
    return true;
}

DownloadQueue::Removal DownloadQueue::cancel(std::string_view uploadName, bool deleteData) {
    const std::lock_guard lock(mutex_);
    const auto found = operations_.find(std::string(uploadName));
    if (found == operations_.end()) return Removal::kAbsent;
    const auto operation = found->second;
    if (operation == running_) {
        again_ = nullptr;
        if (deleteData) operation->delete_ = true;
        operation->cancel = true;
        change_.notify_all();
        return Removal::kRunning;
    }
    erase(operation);
    return Removal::kRemoved;
}

TWDownloadOperationPtr DownloadQueue::find(std::string_view uploadName) const {
    const std::lock_guard lock(mutex_);
    const auto found = operations_.find(std::string(uploadName));
    return found == operations_.end() ? nullptr : found->second;
}

TWDownloadOperationPtr DownloadQueue::running() const {
    const std::lock_guard lock(mutex_);
    return running_;
}

std::size_t DownloadQueue::size() const {
    const std::lock_guard lock(mutex_);
    return operations_.size();
}

std::int64_t DownloadQueue::bytes() const {
    const std::lock_guard lock(mutex_);
    return bytes_;
}

std::vector<TWVirtualFilePtr> DownloadQueue::files() const {
    const std::lock_guard lock(mutex_);
    std::vector<TWVirtualFilePtr> queued;
    queued.reserve(operations_.size());
    for (const auto& [uploadName, operation] : operations_)
        queued.push_back(operation->file);
    return queued;
}

bool DownloadQueue::comes(std::string_view uploadName, std::int64_t end, std::int64_t distance) const {
    const std::lock_guard lock(mutex_);
    return running_ && running_->uploadName == uploadName && !running_->cancel && reach_ > 0 &&
           end <= std::max(reach_, running_->downloadedSize + distance);
}

bool DownloadQueue::waitForBytes(std::string_view uploadName, std::int64_t end,
                                 std::chrono::milliseconds patience) {
    std::unique_lock lock(mutex_);
    const auto operation = running_;
    if (!operation || operation->uploadName != uploadName) return false;
    for (;;) {
        const std::int64_t before = operation->downloadedSize;
        if (before >= end) return true;
        const auto moved = [&] {
            return stopped_ || running_ != operation || operation->cancel ||
                   operation->downloadedSize != before;
        };
        if (!change_.wait_for(lock, patience, moved) || operation->downloadedSize == before) return false;
    }
}

void DownloadQueue::progressed(std::int64_t downloaded, std::int64_t reach) {
    const std::lock_guard lock(mutex_);
    if (!running_) return;
    running_->downloadedSize = downloaded;
    reach_ = reach;
    change_.notify_all();
}

TWDownloadOperationPtr DownloadQueue::take(Date now) {
    const std::lock_guard lock(mutex_);
    for (Order* order : {&user_, &automatic_}) {
        if (order->empty() || (*order->begin())->taskDate > now) continue;
        running_ = *order->begin();
        order->erase(order->begin());
        reach_ = 0;
        return running_;
    }
    return nullptr;
}

std::optional<Date> DownloadQueue::nextDue() const {
    const std::lock_guard lock(mutex_);
    std::optional<Date> due;
    for (const Order* order : {&user_, &automatic_}) {
        if (!order->empty() && (!due || (*order->begin())->taskDate < *due))
            due = (*order->begin())->taskDate;
    }
    return due;
}

void DownloadQueue::finish() {
    const std::lock_guard lock(mutex_);
    if (running_) remove();
}

void DownloadQueue::remove() {
    operations_.erase(running_->uploadName);
    bytes_ -= running_->size;
    running_ = nullptr;
    if (again_) insert(std::exchange(again_, nullptr));
    changed();
}

void DownloadQueue::retryAt(Date date) {
    const std::lock_guard lock(mutex_);
    if (!running_) return;
    if (running_->cancel) {
        remove();
        return;
    }
    running_->taskDate = date;
    orderOf(*running_).insert(running_);
    running_ = nullptr;
    changed();
}

bool DownloadQueue::wait(std::uint64_t& seen, std::chrono::milliseconds longest) {
    std::unique_lock lock(mutex_);
    change_.wait_for(lock, longest, [&] { return stopped_ || changes_ != seen; });
    seen = changes_;
    return !stopped_;
}

void DownloadQueue::stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    if (running_) running_->cancel = true;
    changed();
}

void DownloadQueue::insert(const TWDownloadOperationPtr& operation) {
    operations_.emplace(operation->uploadName, operation);
    orderOf(*operation).insert(operation);
    bytes_ += operation->size;
}

void DownloadQueue::erase(const TWDownloadOperationPtr& operation) {
    orderOf(*operation).erase(operation);
    bytes_ -= operation->size;
    operations_.erase(operation->uploadName);
}

void DownloadQueue::changed() {
    ++changes_;
    change_.notify_all();
}

}  // namespace tarnwell
