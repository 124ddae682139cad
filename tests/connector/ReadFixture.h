#pragma once

#include <gmock/gmock.h>

#include "connector/ConnectorWorld.h"

namespace tarnwell::testing {

/// A connector whose user reads files of the share "s1".
class ReadFixture : public ::testing::Test {
  protected:
    ReadFixture() {
        world.pretendLoggedIn();
        world.addShare("s1");
    }
    auto onRead() { return world.loader.when(urlContains("read.aspx")); }
    /// These headers of every read, joined by "+".
    std::vector<std::string> asked(const char* first, const char* second) {
        std::vector<std::string> found;
        for (const auto& request : world.loader.requests(urlContains("read.aspx")))
            found.push_back(header(request, first).value() + "+" + header(request, second).value());
        return found;
    }
    /// "position+chunk" of every read.
    std::vector<std::string> ranges() { return asked("position", "chunk"); }
    void writeAt(const std::string& path, std::string_view bytes) {
        world.folder.write(path.substr(world.folder.path().size() + 1), bytes);
    }

    ConnectorWorld world;
};

}  // namespace tarnwell::testing
