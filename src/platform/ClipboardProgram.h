#pragma once

#include <memory>
#include <string>

#include "platform/DesktopServices.h"

namespace tarnwell {

/// The clipboard, held by a program of its own, "tarnwell-clipboard".
///
/// What is on the clipboard of a window system lives in the program that put it there, and a window system
/// that goes takes its programs along, in the middle of whatever they do. So the client, which holds unsent
/// changes, has no connection to it: a small program does, which ends when something else is copied.
class ClipboardProgram final : public Clipboard {
  public:
    /// The program's absolute path.
    explicit ClipboardProgram(std::string program);
    ~ClipboardProgram() override;

    void setLink(const std::string& link, std::function<void(bool succeeded)> done) override;

    /// Beside the running program, or where it is installed; empty when it is not there.
    [[nodiscard]] static std::string installedProgram();

  private:
    struct State;
    const std::string program_;
    std::unique_ptr<State> state_;
};

}  // namespace tarnwell
