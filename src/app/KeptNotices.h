#pragma once

#include <memory>
#include <vector>

#include "platform/RunLoop.h"
#include "store/KeptFiles.h"

namespace tarnwell {

class UserInterface;

/// Tells the user of files that were put aside: one message for all of a moment. Made and destroyed on the
/// main thread.
class KeptNotices {
  public:
    /// All outlive this.
    KeptNotices(KeptFiles& keptFiles, RunLoop& loop, UserInterface& userInterface);
    ~KeptNotices();
    KeptNotices(const KeptNotices&) = delete;
    KeptNotices& operator=(const KeptNotices&) = delete;

  private:
    void add(const KeptFiles::Notice& notice);
    void show();
    void offer(const KeptFiles::Notice& notice);

    KeptFiles& keptFiles_;
    RunLoop& loop_;
    UserInterface& userInterface_;
    std::shared_ptr<KeptNotices*> self_;  // tasks on their way hold it weakly
    std::vector<KeptFiles::Notice> pending_;
    Timer timer_;
};

}  // namespace tarnwell
