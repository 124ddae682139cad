#include "support/PrivateBus.h"

#include <cstdlib>

namespace tarnwell::testing {

namespace {

constexpr const char* kConfiguration =
    "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>"
    "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
    "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>";

}  // namespace

SideProgram::SideProgram(const std::string& command)
    : output_(::popen(("echo $$; exec " + command + " 2>/dev/null").c_str(), "re")),
      pid_(std::stoi(line())) {}

SideProgram::~SideProgram() {
    signal(SIGKILL);
    ::pclose(output_);
}

std::string SideProgram::line() {
    char text[256];
    const std::string line = std::fgets(text, sizeof text, output_) ? text : "";
    return line.substr(0, line.find('\n'));
}

PrivateBus::PrivateBus()
    : daemon_("dbus-daemon --nofork --nopidfile --print-address --config-file=" +
              folder_.write("bus.conf", kConfiguration)),
      address_(daemon_.line()) {
    ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
}

PrivateBus::~PrivateBus() {
    ::unsetenv("DBUS_SESSION_BUS_ADDRESS");
}

}  // namespace tarnwell::testing
