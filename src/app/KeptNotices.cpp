#include "app/KeptNotices.h"

#include <chrono>
#include <string>
#include <utility>

#include "app/UserInterface.h"
#include "util/Format.h"

namespace tarnwell {

namespace {

constexpr std::chrono::seconds kGathering{1};
constexpr std::size_t kMostListed = 10;

}  // namespace

KeptNotices::KeptNotices(KeptFiles& keptFiles, RunLoop& loop, UserInterface& userInterface)
    : keptFiles_(keptFiles),
      loop_(loop),
      userInterface_(userInterface),
      self_(std::make_shared<KeptNotices*>(this)) {
    keptFiles_.setObserver([weak = std::weak_ptr(self_), &loop](const KeptFiles::Notice& notice) {
        loop.async([weak, notice] {
            if (const auto self = weak.lock()) (*self)->add(notice);
        });
    });
}

KeptNotices::~KeptNotices() {
    keptFiles_.setObserver({});
}

void KeptNotices::add(const KeptFiles::Notice& notice) {
    if (notice.offered > 0) return offer(notice);
    pending_.push_back(notice);
    if (pending_.size() == 1) timer_ = loop_.postAfter(kGathering, [this] { show(); });
}

void KeptNotices::offer(const KeptFiles::Notice& notice) {
    userInterface_.showAlert(
        {"A share is back",
         format("%@ is here again. %d files of it that were never sent are in %@: copy back what you want.",
                notice.drivePath, notice.offered, notice.path),
         {"Ok"}},
        [](std::size_t) {});
}

void KeptNotices::show() {
    const auto notices = std::exchange(pending_, {});
    std::string text =
        format("%d files that the service has not got were put aside, because %@:", notices.size(),
               notices.front().reason);
    for (std::size_t i = 0; i < notices.size() && i < kMostListed; ++i)
        text += format("\n%@ is now %@", notices[i].drivePath, notices[i].path);
    if (notices.size() > kMostListed) text += format("\nand %d more", notices.size() - kMostListed);
    userInterface_.showAlert({"Unsent files were put aside", text, {"Ok"}}, [](std::size_t) {});
}

}  // namespace tarnwell
